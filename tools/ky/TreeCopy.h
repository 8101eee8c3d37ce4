#pragma once

#include "FolderWalk.h"

#include "ky/kyProgressNotifier.h"

#include <string>
#include <vector>

namespace ky::tool {

/// What an entry adds to the progress of a copy, in bytes: a small file takes time too.
double CopyCost(const struct ::stat& status);

/// Copies what is in one folder into another one that exists, and reports each entry that it
/// cannot copy on standard error.
class TreeCopy : public FolderWalk {
public:
    /// `progress`, borrowed, counts `CopyCost` in its current step and is asked whether to stop.
    TreeCopy(std::string sourceName, impl::ScopedFd destination, bool overwrite,
             kyProgressNotifierInterface& progress);

    bool hasFailed() const { return mHasFailed; }

protected:
    void onEntry(int folder, const std::string& name, const struct ::stat& status) override;
    bool onFolder(const std::string& name, const struct ::stat& status) override;
    bool onLeave() override;
    void onError(const std::string& path, int error) override;
    bool shouldStop() const override { return mProgress.shouldCancel(); }

private:
    struct Level {
        dev_t device;  // of the folder around it
        ino_t inode;
        mode_t mode;  // to be set at the end
        bool isNew;
    };

    // Each gives 0 when all is well, else the `errno` value of what failed or a value of our own.
    [[nodiscard]] int copyFile(int folder, const std::string& name);
    [[nodiscard]] int copyLink(int folder, const std::string& name);
    [[nodiscard]] int makeFolder(const std::string& name, bool& isNew);
    [[nodiscard]] int fill(int source, int destination, const struct ::stat& status);
    [[nodiscard]] int copyPieces(int source, int destination);
    [[nodiscard]] int publish(const std::string& name);
    void add(double cost);

    const bool mOverwrite;
    kyProgressNotifierInterface& mProgress;
    const std::string mTemporaryName;
    std::vector<char> mBuffer;
    impl::ScopedFd mDestination;
    struct ::stat mRoot = {};  // of the destination
    std::vector<Level> mLevels;
    double mDone = 0;
    bool mHasFailed = false;
};

}  // namespace ky::tool

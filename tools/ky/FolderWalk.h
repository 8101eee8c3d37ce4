#pragma once

#include "fs/ScopedHandles.h"

#include <string>
#include <vector>

#include <sys/stat.h>

namespace ky::tool {

/// Walks through a tree, folder by folder, without following links. Works on the raw bytes of
/// names, does not recurse, and needs four descriptors and some memory per level, however deep it
/// goes.
class FolderWalk {
public:
    /// `rootName` stands at the start of all paths, which are for messages only.
    explicit FolderWalk(std::string rootName) : mRootName(std::move(rootName)) {}
    virtual ~FolderWalk() = default;
    FolderWalk(const FolderWalk&) = delete;
    FolderWalk& operator=(const FolderWalk&) = delete;

    /// Goes on after errors, except that of a folder which was moved while the walk was in it.
    void walk(impl::ScopedFd root);

protected:
    /// An entry of `folder`, the open folder that the walk is in, which is no folder itself.
    virtual void onEntry(int folder, const std::string& name, const struct ::stat& status) = 0;

    /// A folder that is about to be entered; false leaves it out.
    virtual bool onFolder(const std::string& name, const struct ::stat& status) = 0;

    /// The folder entered last is done. False ends the walk.
    virtual bool onLeave() = 0;

    virtual void onError(const std::string& path, int error) = 0;

    /// Asked before each entry.
    virtual bool shouldStop() const = 0;

    /// Of an entry of the folder that the walk is in; of that folder when the name is empty.
    std::string path(const std::string& name) const;

private:
    struct Level {
        std::string name;
        dev_t device;
        ino_t inode;
        std::vector<std::string> folders;  // still to be entered
    };

    void enter(impl::ScopedFd folder, const std::string& name);
    void descend(const std::string& name);
    bool leave();
    void readFolder();
    void takeEntry(const std::string& name);

    const std::string mRootName;
    impl::ScopedFd mFolder;
    std::vector<Level> mLevels;
};

/// Goes from `folder` to its parent. False, with `errno`, unless that is the folder `device` and
/// `inode` tell: somebody moved it.
bool GoUp(impl::ScopedFd& folder, dev_t device, ino_t inode);

}  // namespace ky::tool

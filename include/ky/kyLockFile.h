#pragma once

#include "ky/kyExport.h"

#include <cstdio>
#include <memory>
#include <string>

namespace ky {

/// An advisory lock on a file (flock(2)), held as long as the object lives or until it is released.
/// The file is made when it is missing, tells who has locked it last, and is removed at the end.
///
/// Excludes those who take the same lock, in other processes or by another object of this one. An
/// owner that is killed loses it at once, and a program that the owner starts does not get it. A
/// forked child shares it: its copy of the object, when destroyed there, unlocks and removes for
/// both, so leave such a child by _exit(2).
///
/// An object is used by one thread. No member throws. Not copyable: the lock has one owner.
class KY_API kyLockFile {
public:
    /// How many may hold the lock together.
    enum LockType : int {
        Exclusive = 0,  ///< as any other value but 1
        Shared = 1
    };

    kyLockFile();
    /// As `releaseLock(true, nullptr)`.
    ~kyLockFile();
    kyLockFile(const kyLockFile&) = delete;
    kyLockFile& operator=(const kyLockFile&) = delete;

    /// Takes the lock or fails at once: it never waits. `fileExisted`, which may be null, tells
    /// whether the file was there; a file that is made is locked exclusively, also for `Shared`.
    /// `path` is UTF-8, links are followed, and the folder must exist.
    ///
    /// `error`, which may be null and must not be `path`, is emptied, and on failure told why:
    /// "Fail to acquire lock on existing file, " with EWOULDBLOCK when somebody has it, "Fail to
    /// set lock on created file, " when somebody was faster, "Fail to open lock file in w+, ".
    ///
    /// An object that holds a lock leaves it for the new one without removing the file, and keeps
    /// it when that fails; it excludes itself from the same file.
    bool takeLockUtf8(const std::string& path, bool* fileExisted = nullptr,
                      LockType type = Exclusive, std::string* error = nullptr);

    /// Releases the lock, in any case, and with `removeFile` removes the file while it is still
    /// locked, though others may hold it shared. Another file that took its place is left alone.
    /// Where the path is a link, the link is removed and the locked file stays.
    /// `error` is told what failed, "File is not locked" when there is nothing to release.
    bool releaseLock(bool removeFile, std::string* error = nullptr);

    /// Whether this object holds a lock.
    bool isLocked() const { return mStream != nullptr; }

    /// Takes and releases "/file_shared.loc" below `folder`, which must be one to write to, in
    /// several ways. True when all went as it should; nothing is left over.
    static bool UnitTestUtf8(const std::string& folder);

private:
    struct StreamCloser {
        void operator()(std::FILE* stream) const;
    };

    bool removeOwnFile(std::string* error) const;

    std::string mPathUtf8;
    std::unique_ptr<std::FILE, StreamCloser> mStream;
};

}  // namespace ky

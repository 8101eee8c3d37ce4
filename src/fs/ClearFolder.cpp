#include "ky/SystemError.h"
#include "ky/kyCancelInterface.h"
#include "ky/kyDirUtils.h"

#include "fs/SameFile.h"
#include "fs/ScopedHandles.h"
#include "text/LocalPath.h"

#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

namespace ky {
namespace {

/// Folders on the way down that stay open. Each costs a descriptor and a buffer of 32 KiB; one
/// further up is opened again by ".." when its turn comes, and then read from its start.
constexpr std::size_t sMaxOpenFolders = 32;

impl::ScopedDir OpenFolder(int parent, const char* name, int linkFlag)
{
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | linkFlag;
    return impl::StreamOver<DIR>(
        impl::ScopedFd(impl::RetryOnEintr([&] { return ::openat(parent, name, flags); })),
        ::fdopendir);
}

bool IsFolder(int parent, const dirent& entry)
{
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    struct stat status;
    return ::fstatat(parent, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode);
}

/// Walks by descriptors and single names, so that nothing that is exchanged on the way makes it
/// leave the folder, and neither the depth nor the length of a path is limited.
class FolderClearing {
public:
    FolderClearing(std::string localPath, bool removesRoot, std::string* error,
                   const kyCancelInterfaceReadOnly* cancel)
        : mPath(std::move(localPath)), mRemovesRoot(removesRoot), mError(error), mCancel(cancel)
    {}

    bool run();

private:
    /// A folder between the one to clear and the one that is being read, both included.
    struct Level {
        explicit Level(std::size_t size) : parentPathSize(size) {}
        void suspend();
        bool resume(impl::ScopedDir opened);
        bool beginsAnotherPass();

        impl::ScopedDir folder;  // null while it is suspended
        dev_t device = 0;        // known while it is suspended
        ino_t inode = 0;
        std::size_t parentPathSize;  // of mPath without the name of this folder
        bool isDotAsked = false;     // an entry is asked for once, in however many passes it occurs
        bool isDotDotAsked = false;
        std::size_t removed = 0;  // in this pass
        std::size_t removedBefore = std::numeric_limits<std::size_t>::max();
    };
    enum class Outcome { Done, Failed, Entered };

    bool enter(int parent, const char* name, int linkFlag);
    Outcome clearTop();
    Outcome passEntry(const dirent& entry);
    Outcome removeEntry(const dirent& entry);
    bool leaveTop(bool isCleared);
    bool resumeParent();
    bool removeLeft(std::size_t parentPathSize);
    bool askCancel();
    bool fail(const char* text, int errorNumber, const std::string& localPath);
    int topDescriptor() const { return ::dirfd(mLevels.back().folder.get()); }

    std::string mPath;  // of the top level; messages need all of it, removing its last name
    std::vector<Level> mLevels;
    const bool mRemovesRoot;
    std::string* const mError;
    const kyCancelInterfaceReadOnly* const mCancel;
    bool mIsCanceled = false;
    int mErrno = 0;  // of the first failure
};

/// Without effect on a level that is suspended already.
void FolderClearing::Level::suspend()
{
    if (!folder)
        return;
    struct stat status = {};
    ::fstat(::dirfd(folder.get()), &status);
    device = status.st_dev;
    inode = status.st_ino;
    folder.reset();
}

/// False when another folder was opened.
bool FolderClearing::Level::resume(impl::ScopedDir opened)
{
    struct stat status = {};
    ::fstat(::dirfd(opened.get()), &status);
    if (status.st_dev != device || status.st_ino != inode)
        return false;
    folder = std::move(opened);
    return true;
}

/// A folder that shrinks while it is read hides entries on some file systems, fewer each time. What
/// others put there meanwhile does not get fewer, and would be removed for ever.
bool FolderClearing::Level::beginsAnotherPass()
{
    const std::size_t before = std::exchange(removedBefore, std::exchange(removed, 0));
    if (removedBefore == 0 || removedBefore >= before)
        return false;
    ::rewinddir(folder.get());
    return true;
}

bool FolderClearing::run()
{
    if (!enter(AT_FDCWD, mPath.c_str(), 0))
        fail("opendir error ", errno, mPath);
    bool isCleared = mErrno == 0;
    while (!mLevels.empty()) {
        // kept: a failing child ends the reading of all the folders above it.
        const Outcome outcome = isCleared ? clearTop() : Outcome::Failed;
        if (outcome != Outcome::Entered)
            isCleared = leaveTop(outcome == Outcome::Done);
    }
    if (mErrno != 0)
        errno = mErrno;
    return isCleared;
}

bool FolderClearing::enter(int parent, const char* name, int linkFlag)
{
    Level level(mPath.size());
    level.folder = OpenFolder(parent, name, linkFlag);
    if (!level.folder)
        return false;
    if (mLevels.size() >= sMaxOpenFolders)
        mLevels[mLevels.size() - sMaxOpenFolders].suspend();
    if (!mLevels.empty())
        mPath.append("/").append(name);
    mLevels.push_back(std::move(level));
    return true;
}

FolderClearing::Outcome FolderClearing::clearTop()
{
    while (true) {
        Level& level = mLevels.back();
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): it is, for a stream of one's own (readdir(3))
        const dirent* const entry = ::readdir(level.folder.get());
        if (entry != nullptr) {
            const Outcome outcome = passEntry(*entry);
            if (outcome != Outcome::Done)
                return outcome;
        } else if (errno != 0) {
            fail("opendir error ", errno, mPath);
            return Outcome::Failed;
        } else if (!level.beginsAnotherPass()) {
            return Outcome::Done;
        }
    }
}

FolderClearing::Outcome FolderClearing::passEntry(const dirent& entry)
{
    Level& level = mLevels.back();
    const std::string_view name = entry.d_name;
    if (name == "." || name == "..") {
        bool& isAsked = name == "." ? level.isDotAsked : level.isDotDotAsked;
        return !std::exchange(isAsked, true) && askCancel() ? Outcome::Failed : Outcome::Done;
    }
    if (askCancel())
        return Outcome::Failed;
    const Outcome outcome = removeEntry(entry);
    if (outcome == Outcome::Done)
        ++level.removed;
    return outcome;
}

/// Two calls decide, neither of which follows a link: unlinkat(2) refuses folders, opening refuses
/// all else. So it does not matter when an entry is exchanged after it was read.
FolderClearing::Outcome FolderClearing::removeEntry(const dirent& entry)
{
    const int parent = topDescriptor();
    if (IsFolder(parent, entry)) {
        if (enter(parent, entry.d_name, O_NOFOLLOW))
            return Outcome::Entered;
        if (errno != ENOTDIR && errno != ELOOP) {
            fail("opendir error ", errno, mPath + "/" + entry.d_name);
            return Outcome::Failed;
        }
    }
    if (::unlinkat(parent, entry.d_name, 0) == 0)
        return Outcome::Done;
    fail("unlink error ", errno, mPath + "/" + entry.d_name);
    return Outcome::Failed;
}

bool FolderClearing::leaveTop(bool isCleared)
{
    const bool isCanceled = askCancel();
    if (isCanceled && mError != nullptr)
        *mError = "Canceled";
    const std::size_t parentPathSize = mLevels.back().parentPathSize;
    if (!resumeParent())
        return false;
    const bool isRemoved = isCanceled || removeLeft(parentPathSize);
    mPath.resize(parentPathSize);
    return isCleared && !isCanceled && isRemoved;
}

/// Drops the top level; the one below it is open then. False when there is no way back to it, with
/// no level left.
bool FolderClearing::resumeParent()
{
    const Level top = std::move(mLevels.back());
    mLevels.pop_back();
    if (mLevels.empty() || mLevels.back().folder)
        return true;
    impl::ScopedDir folder = OpenFolder(::dirfd(top.folder.get()), "..", 0);
    int error = errno;
    if (folder) {
        if (mLevels.back().resume(std::move(folder)))
            return true;
        // The top was moved, and leads out of the folder now.
        error = ENOENT;
    }
    mLevels.clear();
    return fail("opendir error ", error, mPath.substr(0, top.parentPathSize));
}

/// Removes the folder that was just left, whose path mPath still is.
bool FolderClearing::removeLeft(std::size_t parentPathSize)
{
    if (mLevels.empty() && !mRemovesRoot)
        return true;
    const int status =
        mLevels.empty()
            ? ::rmdir(mPath.c_str())
            : ::unlinkat(topDescriptor(), mPath.c_str() + parentPathSize + 1, AT_REMOVEDIR);
    if (status != 0)
        return fail("rmdir error ", errno, mPath);
    if (!mLevels.empty())
        ++mLevels.back().removed;
    return true;
}

/// A yes counts for good: if the source could take it back, a folder with entries left in it would
/// pass for cleared.
bool FolderClearing::askCancel()
{
    if (mCancel != nullptr && mCancel->shouldCancel())
        mIsCanceled = true;
    return mIsCanceled;
}

/// The first message stays. Raw bytes stand for a name that does not convert.
bool FolderClearing::fail(const char* text, int errorNumber, const std::string& localPath)
{
    if (mErrno == 0)
        mErrno = errorNumber;
    if (mError != nullptr && mError->empty()) {
        const std::string pathUtf8 = impl::ToUtf8Path(localPath);
        *mError = text + SystemError(errorNumber).toString() + " for " +
                  (pathUtf8.empty() ? localPath : pathUtf8);
    }
    return false;
}

}  // namespace

bool kyDirUtils::ClearFolderUtf8(const std::string& path, bool removeFolder, std::string* error,
                                 const kyCancelInterfaceReadOnly* cancel)
{
    if (error != nullptr)
        error->clear();
    if (!DirExistsUtf8(path))
        return true;
    return FolderClearing(impl::ToLocalPath(path), removeFolder, error, cancel).run();
}

}  // namespace ky

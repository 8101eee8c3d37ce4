#include "TreeCopy.h"
#include "Progress.h"
#include "StandardStreams.h"

#include "ky/kyDirUtils.h"
#include "ky/kyRandomUtils.h"

#include <utility>

#include <fcntl.h>
#include <limits.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ky::tool {
namespace {

constexpr double sEntryCost = 4096;
constexpr mode_t sPermissions = 0777;
constexpr int sNotCopyable = -1;  // beside errno values: a device, a pipe or a socket

// Copied in a few milliseconds, so nobody waits for it after an interrupt.
constexpr off_t sSmallFileBytes = 8 << 20;
constexpr std::size_t sPieceBytes = 1 << 18;

std::string PathOfDescriptor(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

/// By way of the descriptors, whose paths exist in every character set and are never too long.
bool CopyAtOnce(int source, int destination, off_t size)
{
    struct ::stat status = {};
    return kyDirUtils::CopyFileUtf8(PathOfDescriptor(source), PathOfDescriptor(destination), true,
                                    nullptr) &&
           ::fstat(destination, &status) == 0 && status.st_size >= size;
}

bool IsAllZero(const char* data, std::size_t size)
{
    return data[0] == 0 && std::memcmp(data, data + 1, size - 1) == 0;
}

}  // namespace

double CopyCost(const struct ::stat& status)
{
    return sEntryCost + (S_ISREG(status.st_mode) ? static_cast<double>(status.st_size) : 0.0);
}

TreeCopy::TreeCopy(std::string sourceName, impl::ScopedFd destination, bool overwrite,
                   kyProgressNotifierInterface& progress)
    : FolderWalk(std::move(sourceName)),
      mOverwrite(overwrite),
      mProgress(progress),
      mTemporaryName(".ky-copy-" + kyRandomUtils::CreateRandHexString(8)),
      mBuffer(sPieceBytes),
      mDestination(std::move(destination))
{
    ::fstat(mDestination.get(), &mRoot);
}

void TreeCopy::onEntry(int folder, const std::string& name, const struct ::stat& status)
{
    const double before = mDone;
    int error = 0;
    if (!mOverwrite &&
        ::faccessat(mDestination.get(), name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0)
        error = EEXIST;
    else if (S_ISREG(status.st_mode))
        error = copyFile(folder, name);
    else if (S_ISLNK(status.st_mode))
        error = copyLink(folder, name);
    else
        error = sNotCopyable;
    if (error == ECANCELED)
        return;
    if (error != 0)
        onError(path(name), error);
    mDone = before;
    add(CopyCost(status));
}

int TreeCopy::copyFile(int folder, const std::string& name)
{
    // What was a file a moment ago may be a pipe now, and opening that could wait for ever.
    const impl::ScopedFd source(
        ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct ::stat status = {};
    if (!source || ::fstat(source.get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return sNotCopyable;
    impl::ScopedFd destination(::openat(mDestination.get(), mTemporaryName.c_str(),
                                        O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!destination)
        return errno;
    int error = fill(source.get(), destination.get(), status);
    if (error == 0 && ::fchmod(destination.get(), status.st_mode & sPermissions) != 0)
        error = errno;
    // Some file systems tell only here that there was no room.
    if (::close(destination.release()) != 0 && error == 0)
        error = errno;
    if (error == 0)
        return publish(name);
    ::unlinkat(mDestination.get(), mTemporaryName.c_str(), 0);
    return error;
}

int TreeCopy::fill(int source, int destination, const struct ::stat& status)
{
    if (status.st_size > 0 && status.st_size <= sSmallFileBytes &&
        CopyAtOnce(source, destination, status.st_size))
        return 0;
    // Piece by piece it can be stopped, and tells what is wrong.
    return ::ftruncate(destination, 0) == 0 ? copyPieces(source, destination) : errno;
}

int TreeCopy::copyPieces(int source, int destination)
{
    off_t total = 0;
    while (!mProgress.shouldCancel()) {
        const ssize_t result =
            impl::RetryOnEintr([&] { return ::read(source, mBuffer.data(), mBuffer.size()); });
        if (result == -1 || (result == 0 && ::ftruncate(destination, total) == -1))
            return errno;
        if (result == 0)
            return 0;
        const auto size = static_cast<std::size_t>(result);
        total += result;
        // What is nothing but zeros becomes a hole, as it mostly was one.
        const bool isDone = IsAllZero(mBuffer.data(), size)
                                ? ::lseek(destination, total, SEEK_SET) != -1
                                : impl::WriteAll(destination, {mBuffer.data(), size});
        if (!isDone)
            return errno;
        add(static_cast<double>(size));
    }
    return ECANCELED;
}

int TreeCopy::copyLink(int folder, const std::string& name)
{
    char target[PATH_MAX];
    const ssize_t size = ::readlinkat(folder, name.c_str(), target, sizeof target);
    if (size == -1)
        return errno;
    const std::string text(target, static_cast<std::size_t>(size));
    if (::symlinkat(text.c_str(), mDestination.get(), mTemporaryName.c_str()) != 0)
        return errno;
    return publish(name);
}

/// Under its own name an entry is whole from the start.
int TreeCopy::publish(const std::string& name)
{
    const int folder = mDestination.get();
    const auto rename = [&](unsigned flags) {
        return ::renameat2(folder, mTemporaryName.c_str(), folder, name.c_str(), flags);
    };
    int result = rename(mOverwrite ? 0 : RENAME_NOREPLACE);
    // Not every file system can refuse to replace; it was asked before, then.
    if (result == -1 && errno == EINVAL && !mOverwrite)
        result = rename(0);
    if (result == 0)
        return 0;
    const int error = errno;
    ::unlinkat(folder, mTemporaryName.c_str(), 0);
    return error;
}

bool TreeCopy::onFolder(const std::string& name, const struct ::stat& status)
{
    // Mounted inside the source once more, it would be copied into itself without end.
    if (status.st_dev == mRoot.st_dev && status.st_ino == mRoot.st_ino) {
        onError(path(name), EINVAL);
        return false;
    }
    bool isNew = false;
    struct ::stat around = {};
    ::fstat(mDestination.get(), &around);
    const int error = makeFolder(name, isNew);
    if (error != 0) {
        onError(path(name), error);
        return false;
    }
    mLevels.push_back({around.st_dev, around.st_ino, status.st_mode & sPermissions, isNew});
    add(sEntryCost);
    return true;
}

int TreeCopy::makeFolder(const std::string& name, bool& isNew)
{
    const int parent = mDestination.get();
    // Its own permissions come at the end: it may be one that nobody may write to.
    isNew = ::mkdirat(parent, name.c_str(), 0700) == 0;
    if (!isNew && errno != EEXIST)
        return errno;
    impl::ScopedFd folder(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder)
        return errno;
    mDestination = std::move(folder);
    return 0;
}

bool TreeCopy::onLeave()
{
    if (mLevels.empty())
        return true;
    const Level level = mLevels.back();
    mLevels.pop_back();
    if (level.isNew && ::fchmod(mDestination.get(), level.mode) != 0)
        onError(path(""), errno);
    if (GoUp(mDestination, level.device, level.inode))
        return true;
    onError(path(""), errno);
    return false;
}

void TreeCopy::onError(const std::string& path, int error)
{
    mHasFailed = true;
    EraseBar();
    if (error == sNotCopyable)
        PrintError("Not copied, because it is no file, folder or link: " + path, EINVAL);
    else
        PrintError("Cannot copy " + path, error);
}

void TreeCopy::add(double cost)
{
    mDone += cost;
    mProgress.setCurrentStepProgress(mDone);
}

}  // namespace ky::tool

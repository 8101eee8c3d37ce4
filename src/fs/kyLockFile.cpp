#include "ky/kyLockFile.h"

#include "ky/SystemError.h"
#include "ky/kyDirUtils.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"

#include "frame/Fail.h"
#include "fs/FailToRemove.h"
#include "fs/SameFile.h"
#include "fs/ScopedHandles.h"
#include "text/LocalPath.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <cerrno>

namespace ky {
namespace {

std::string OwnerLine()
{
    return "Lock from PID : " + std::to_string(kySystemUtils::GetCurrentProcessID()) +
           ", TID : " + kyThread::CurrentThreadId();
}

bool Lock(std::FILE* stream, int operation)
{
    return impl::RetryOnEintr([&] { return ::flock(::fileno(stream), operation); }) == 0;
}

/// Locks the file against others who remove it, or unlocks it; a lock beside that of flock(2),
/// which several may share (fcntl(2), open file description locks). False when one of them has it.
bool LockRemoval(std::FILE* stream, short type)
{
    struct flock whole = {};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    return ::fcntl(::fileno(stream), F_OFD_SETLK, &whole) == 0 ||
           (errno != EAGAIN && errno != EACCES);
}

void Add(std::string* error, const std::string& text)
{
    if (error == nullptr)
        return;
    if (!error->empty())
        error->append(", ");
    error->append(text);
}

/// One attempt. The lock may be on a file that its last owner has removed meanwhile.
bool TakeOnce(const std::string& localPath, kyLockFile::LockType type, impl::ScopedFile& stream,
              bool& fileExisted, std::string* error)
{
    stream = impl::OpenStream(localPath.c_str(), O_RDWR, "r+");
    fileExisted = stream != nullptr;
    if (fileExisted) {
        const int operation = type == kyLockFile::Shared ? LOCK_SH : LOCK_EX;
        return Lock(stream.get(), operation | LOCK_NB) ||
               impl::Fail(error, "Fail to acquire lock on existing file, ", errno);
    }
    stream = impl::OpenStream(localPath.c_str(), O_RDWR | O_CREAT | O_TRUNC, "w+");
    if (!stream)
        return impl::Fail(error, "Fail to open lock file in w+, ", errno);
    // kept: a file created here is locked exclusively, even when Shared was asked for.
    return Lock(stream.get(), LOCK_EX | LOCK_NB) ||
           impl::Fail(error, "Fail to set lock on created file, ", errno);
}

}  // namespace

void kyLockFile::StreamCloser::operator()(std::FILE* stream) const
{
    impl::HandleCloser()(stream);
}

kyLockFile::kyLockFile() = default;

kyLockFile::~kyLockFile()
{
    releaseLock(true, nullptr);
}

bool kyLockFile::takeLockUtf8(const std::string& path, bool* fileExisted, LockType type,
                              std::string* error)
{
    if (error != nullptr)
        error->clear();
    if (fileExisted != nullptr)
        *fileExisted = false;
    const std::string ownerLine = OwnerLine();
    const std::string localPath = impl::ToLocalPath(path);
    impl::ScopedFile stream;
    bool isExisting = false;
    do {
        if (!TakeOnce(localPath, type, stream, isExisting, error))
            return false;
    } while (!impl::IsAtPath(::fileno(stream.get()), localPath, 0));
    // kept: over the start of the file, so that the end of a longer line stays.
    static_cast<void>(std::fwrite(ownerLine.data(), 1, ownerLine.size(), stream.get()));
    static_cast<void>(std::fflush(stream.get()));
    if (fileExisted != nullptr)
        *fileExisted = isExisting;
    mPathUtf8 = path;
    mStream.reset(stream.release());
    return true;
}

bool kyLockFile::releaseLock(bool removeFile, std::string* error)
{
    if (error != nullptr)
        error->clear();
    if (!mStream) {
        Add(error, "File is not locked");
        return false;
    }
    // Removed before it is unlocked: whoever took the lock in between would have it on a file that
    // then goes away, while the next one makes another.
    std::string removeError;
    const bool isRemoved = !removeFile || removeOwnFile(&removeError);
    int firstErrno = isRemoved ? 0 : errno;
    const bool isReleased = Lock(mStream.get(), LOCK_UN);
    if (!isReleased)
        Add(error, "Fail to release lock on file, " + SystemError(firstErrno = errno).toString());
    mStream.reset();
    if (!isRemoved)
        Add(error, "Fail to remove lock file, " + removeError);
    if (firstErrno != 0)
        errno = firstErrno;
    return isReleased && isRemoved;
}

/// True as well when another file stands at the path, or somebody who shares the lock is about to
/// remove this one.
bool kyLockFile::removeOwnFile(std::string* error) const
{
    // Between the look at the path and the removal nobody else may remove the file: the next one
    // would make and lock a new one, and that would be removed under its owner.
    if (!LockRemoval(mStream.get(), F_WRLCK))
        return true;
    const std::string localPath = impl::ToLocalPath(mPathUtf8);
    struct stat present;
    bool isDone = true;
    // kept: removed under a shared lock too, though others may hold it.
    if (impl::IsAtPath(::fileno(mStream.get()), localPath, 0))
        isDone = kyDirUtils::RemoveFileUtf8(mPathUtf8, error);
    else if (::lstat(localPath.c_str(), &present) != 0)
        // Without trying to: somebody may make it meanwhile.
        isDone = impl::FailToRemove(error, mPathUtf8, errno);
    const int removeErrno = errno;
    LockRemoval(mStream.get(), F_UNLCK);
    errno = removeErrno;
    return isDone;
}

bool kyLockFile::UnitTestUtf8(const std::string& folder)
{
    const std::string path = folder + "/file_shared.loc";
    kyDirUtils::RemoveFileUtf8(path);
    kyLockFile first;
    kyLockFile second;
    bool fileExisted = true;
    std::string error;
    const bool isPassed =
        // Nothing to release, then one exclusive owner, whatever is asked for.
        !first.releaseLock(true, &error) && error == "File is not locked" &&
        first.takeLockUtf8(path, &fileExisted, Shared, &error) && !fileExisted &&
        !second.takeLockUtf8(path, &fileExisted, Shared, &error) && !error.empty() &&
        !second.isLocked() && first.releaseLock(false, &error) && !first.isLocked() &&
        kyDirUtils::FileExistsUtf8(path) &&
        // Two shared ones, which keep an exclusive one out.
        first.takeLockUtf8(path, &fileExisted, Shared, &error) && fileExisted &&
        second.takeLockUtf8(path, &fileExisted, Shared, &error) && fileExisted &&
        !kyLockFile().takeLockUtf8(path, nullptr, Exclusive, &error) &&
        first.releaseLock(false, &error) && second.releaseLock(false, &error) &&
        // An exclusive one on the file that is there, which goes with it.
        second.takeLockUtf8(path, &fileExisted, Exclusive, &error) && fileExisted &&
        !first.takeLockUtf8(path, nullptr, Exclusive, &error) && second.releaseLock(true, &error) &&
        error.empty() && !kyDirUtils::FileExistsUtf8(path) &&
        // And one on a file that is made and stays.
        first.takeLockUtf8(path, &fileExisted, Exclusive, &error) && !fileExisted &&
        first.releaseLock(false, &error);
    first.releaseLock(false, nullptr);
    second.releaseLock(false, nullptr);
    const bool isRemoved = kyDirUtils::RemoveFileUtf8(path);
    return isPassed && isRemoved;
}

}  // namespace ky

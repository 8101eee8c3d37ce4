#include "log/LogFile.h"

#include "ky/SystemError.h"

#include "fs/MakePath.h"
#include "log/LogFileState.h"
#include "text/LocalPath.h"

#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace ky::impl {
namespace {

constexpr mode_t sMode = 0666;

bool FailWith(std::string* error, const char* what, const std::string& path, int errorNumber)
{
    if (error != nullptr)
        *error =
            std::string(what) + "'" + path + "' error was : " + SystemError(errorNumber).toString();
    return false;
}

/// Two processes that mean the same file mean the same lock, whatever they call the file's folder.
std::string LockName(const std::string& path)
{
    const std::string::size_type base = path.rfind('/') + 1;
    struct stat folder = {};
    static_cast<void>(::stat(path.substr(0, base).c_str(), &folder));
    std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a: the same in every build
    for (const char c : path.substr(base))
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return "kyLog-" + std::to_string(folder.st_dev) + "-" + std::to_string(folder.st_ino) + "-" +
           std::to_string(hash);
}

bool IsLink(const std::string& path)
{
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

}  // namespace

std::shared_ptr<LogFile> LogFile::Open(const LogFileSettings& settings, std::string* error)
{
    std::shared_ptr<LogFile> file(new LogFile(settings));
    return file->open(error) ? file : nullptr;
}

bool LogFile::open(std::string* error)
{
    const std::string folder = ToLocalPath(mSettings.folderUtf8);
    if (!mSettings.folderUtf8.empty() && !MakePath(folder))
        return FailWith(error, "Fail to create log folder ", mSettings.folderUtf8, errno);
    const std::string localPath = ToLocalPath(mSettings.pathUtf8);
    resolvePath(localPath);
    // A link to nothing yet: what it names is made through it.
    if (IsLink(mPath) && openPath(0))
        resolvePath(localPath);
    struct stat info;
    const bool startsEmpty = (mSettings.options & (kyLog::FileAppend | kyLog::FileShared)) == 0;
    if (startsEmpty && ::lstat(mPath.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        ::unlink(mPath.c_str()) != 0)
        return FailWith(error, "Fail to remove previous log file ", mSettings.pathUtf8, errno);
    ScopedFd fd = openPath(0);
    if (!fd)
        return FailWith(error, "Fail to initialize log file ", mSettings.pathUtf8, errno);
    if ((mSettings.options & kyLog::FileShared) != 0 && !openLock(fd.get(), error))
        return false;
    // Without the lock, which another process may hold for long: the first write looks again.
    adopt(std::move(fd));
    return true;
}

/// Whoever may write to the file may take its lock, and nobody else: a reader could stop all who
/// write.
bool LogFile::openLock(int fd, std::string* error)
{
    struct stat info = {};
    static_cast<void>(::fstat(fd, &info));
    const mode_t writers = info.st_mode & 0222U;
    mLock = std::make_unique<SystemLock>(writers | (writers << 1U), info.st_gid);
    const int errorNumber = mLock->open(LockName(mPath));
    return errorNumber == 0 ||
           FailWith(error, "Fail to install log file handler to ", mSettings.pathUtf8, errorNumber);
}

/// A link that is there from the start is meant; one that takes the file's place later is not
/// followed.
void LogFile::resolvePath(const std::string& localPath)
{
    using Freed = std::unique_ptr<char, decltype(&std::free)>;
    const std::string::size_type base = localPath.rfind('/') + 1;
    struct stat info;
    const bool isSpecial = ::stat(localPath.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
    const Freed whole(isSpecial ? nullptr : ::realpath(localPath.c_str(), nullptr), &std::free);
    const Freed folder(::realpath(localPath.substr(0, base).c_str(), nullptr), &std::free);
    if (whole)
        mPath = whole.get();
    else if (folder && !isSpecial)
        mPath = std::string(folder.get()) + "/" + localPath.substr(base);
    else
        mPath = localPath;
}

/// Opening with O_CREAT comes second: in a folder that all may write to, the kernel then refuses
/// another user's file (proc(5), fs.protected_regular).
ScopedFd LogFile::openPath(int flags) const
{
    struct stat info;
    const bool isPipe = ::stat(mPath.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
    ScopedFd fd;
    for (const int access : {O_RDWR, O_WRONLY}) {
        // A pipe without reader must fail, and fail again when the reader has gone.
        if (isPipe && access == O_RDWR)
            continue;
        fd = ScopedFd(::open(mPath.c_str(), sLogFileFlags | flags | access));
        if (!fd && errno == ENOENT)
            fd = ScopedFd(::open(mPath.c_str(), sLogFileFlags | flags | access | O_CREAT, sMode));
        if (fd || errno != EACCES)
            break;
    }
    return fd;
}

/// Writes to `fd` from now on, if that is one.
void LogFile::adopt(ScopedFd fd)
{
    State& state = *mState;
    struct stat info;
    if (!fd || ::fstat(fd.get(), &info) != 0)
        return;
    static_cast<void>(::fcntl(fd.get(), F_SETFL, O_APPEND));
    state.fd = std::move(fd);
    state.device = info.st_dev;
    state.inode = info.st_ino;
    state.isRegular = S_ISREG(info.st_mode);
    state.isAtPath = true;
    state.period = {};
    state.size = 0;
    // Where the end cannot be read, a blank line does less harm than two lines in one.
    state.isTorn = info.st_size != 0;
    if (!state.isRegular)
        return;
    lookAtEnd(info.st_size);
    if (state.size != 0)
        state.period = periodOf(info.st_mtim.tv_sec);
}

/// A line that another process or an earlier start has left without its end stays as it is, and
/// ours begins on a line of its own. Without the lock the end may be that of a line which somebody
/// is just writing, so it counts at the opening only.
void LogFile::lookAtEnd(long size)
{
    State& state = *mState;
    const bool isOpening = state.size == 0;
    if (size == std::exchange(state.size, size) || (!mLock && !isOpening))
        return;
    char last = '\n';
    if (size == 0)
        state.isTorn = false;
    else if (::pread(state.fd.get(), &last, 1, size - 1) == 1)
        state.isTorn = last != '\n';
}

/// Whoever renames or removes the file wants a new one. What is open stays in use until a new one
/// can be opened.
void LogFile::lookAtPath()
{
    State& state = *mState;
    struct stat info;
    if (::lstat(mPath.c_str(), &info) == 0 && info.st_dev == state.device &&
        info.st_ino == state.inode) {
        state.isAtPath = true;
        return lookAtEnd(info.st_size);
    }
    ScopedFd fd = openPath(O_NOFOLLOW);
    int error = fd ? 0 : errno;
    if (fd && ::fstat(fd.get(), &info) == 0 && !S_ISREG(info.st_mode))
        error = EEXIST;
    if (error == 0)
        return adopt(std::move(fd));
    state.isAtPath = false;
    reportTrouble("Fail to initialize log file '" + mSettings.pathUtf8 + "'", error);
    if (::fstat(state.fd.get(), &info) == 0)
        lookAtEnd(info.st_size);
}

/// The parent's thread may have been in the middle of everything. False without memory.
bool LogFile::renewAfterFork() noexcept
{
    std::unique_ptr<State> renewed;
    try {
        renewed = std::make_unique_for_overwrite<State>();
    } catch (const std::bad_alloc&) {
        return false;
    }
    const State& parents = *(renewed->parents = mState.release());
    mState = std::move(renewed);
    // Kept even when the path has another file by now: the next look at it, under the lock,
    // decides.
    const int inherited = parents.fd.get();
    struct stat opened;
    if (inherited >= 0 && ::fstat(inherited, &opened) == 0 && opened.st_dev == parents.device &&
        opened.st_ino == parents.inode)
        adopt(ScopedFd(inherited));
    return true;
}

}  // namespace ky::impl

#include "log/LogFile.h"

#include "ky/kySystemUtils.h"

#include "log/LogFileNames.h"
#include "log/LogFileState.h"

#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <ctime>

namespace ky::impl {

using Interval = kyLog::TimeRotationInterval;

LogPeriod LogFile::periodOf(long seconds) const
{
    if (mSettings.interval == Interval::None)
        return {};
    return {seconds, EndOfPeriod(seconds, mSettings.interval)};
}

/// Before the text begins with a line of this time.
void LogFile::beginTextPeriod(long seconds)
{
    State& state = *mState;
    if (state.size != 0 && state.period.has(seconds))
        state.textPeriod = state.period;
    else if (mSettings.interval != Interval::None)
        state.textPeriod = periodOf(seconds);
}

bool LogFile::isRotationDue() const
{
    const State& state = *mState;
    if (!state.isRegular || !state.isAtPath || state.size == 0)
        return false;
    const unsigned long most = mSettings.maxFileSizeBytes;
    const unsigned long sizeAfter =
        static_cast<unsigned long>(state.size) + state.head.size() + state.text.bytes();
    return (most != 0 && sizeAfter > most) || !state.period.has(state.firstSeconds);
}

/// While a disk is full nothing is put aside: files that are full of lines would give way to empty
/// ones. What would be removed by now goes, which may make the room that is missing.
bool LogFile::canRotate()
{
    State& state = *mState;
    // A file at its own limit says nothing of the next one (setrlimit(2), RLIMIT_FSIZE).
    if (state.error == 0 || state.error == EFBIG)
        return true;
    if (mSettings.maxFileCount > 1)
        state.notice += RemoveOldest(mPath, {}, mSettings.maxFileCount - 2);
    return false;
}

/// A new file at the path with mode and owner of `old`, which are the operator's choice; the owner
/// as far as that is allowed. It has them before it gets its name, so that a kill in between cannot
/// leave others to all that follow.
ScopedFd LogFile::makeNext(const struct stat& old) const
{
    const std::string folder = mPath.substr(0, mPath.rfind('/') + 1);
    ScopedFd fd(::open(folder.c_str(), sLogFileFlags | O_RDWR | O_TMPFILE, S_IRUSR | S_IWUSR));
    const bool isNameless = static_cast<bool>(fd);
    if (!fd)
        fd = ScopedFd(
            ::open(mPath.c_str(), sLogFileFlags | O_RDWR | O_CREAT | O_EXCL, old.st_mode & 0777));
    if (!fd)
        return fd;
    static_cast<void>(::fchown(fd.get(), old.st_uid, old.st_gid) == 0);
    static_cast<void>(::fchmod(fd.get(), old.st_mode & 07777));
    const std::string nameless = "/proc/self/fd/" + std::to_string(fd.get());
    if (isNameless &&
        ::linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, mPath.c_str(), AT_SYMLINK_FOLLOW) != 0)
        fd.reset();
    return fd;
}

void LogFile::rotate()
{
    State& state = *mState;
    const std::string mark = state.period.has(state.firstSeconds)
                                 ? SizeRotationMark(state.firstSeconds)
                                 : TimeRotationMark(state.period.inside, mSettings.interval);
    state.putAside = PutAside(mPath, mark);
    int error = errno;
    if (state.putAside.empty()) {
        reportTrouble("Fail to rename log file '" + mSettings.pathUtf8 + "'", error);
        return;
    }
    struct stat old = {};
    static_cast<void>(::fstat(state.fd.get(), &old));
    ScopedFd fd = makeNext(old);
    error = errno;
    // A process that does not share the file, a forked child say, was faster.
    if (!fd && error == EEXIST)
        return lookAtPath();
    if (!fd) {
        static_cast<void>(RenameToNew(state.putAside, mPath));
        reportTrouble("Fail to initialize log file '" + mSettings.pathUtf8 + "'", error);
        return;
    }
    state.previous = std::move(state.fd);
    adopt(std::move(fd));
    makeHead();
}

/// The new file could not take a single byte.
void LogFile::undoRotation()
{
    State& state = *mState;
    static_cast<void>(::unlink(mPath.c_str()));
    static_cast<void>(RenameToNew(state.putAside, mPath));
    adopt(std::move(state.previous));
}

void LogFile::finishRotation()
{
    State& state = *mState;
    state.previous.reset();
    if (mSettings.maxFileCount != 0)
        state.notice += RemoveOldest(mPath, state.putAside, mSettings.maxFileCount - 1);
}

/// Lines that were made in one period and written in the next must not make the file look like one
/// of the next, to another process or after a restart.
void LogFile::keepTime() const
{
    const State& state = *mState;
    if (mSettings.interval == Interval::None || !state.isRegular)
        return;
    const auto now = static_cast<long>(kySystemUtils::GetMSecElapsedSinceEpoch() / 1000);
    if (now < state.period.end && state.lastSeconds < now + LogPeriod::sDaySeconds)
        return;
    const std::timespec times[2] = {{0, UTIME_OMIT}, {state.lastSeconds, 0}};
    static_cast<void>(::futimens(state.fd.get(), times));
}

}  // namespace ky::impl

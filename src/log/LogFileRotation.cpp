#include "log/LogFile.h"

#include "ky/kySystemUtils.h"

#include "log/LogFileNames.h"
#include "log/LogFileState.h"
#include "text/LocalPath.h"

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
/// ones. What a rotation would remove goes first, and if that makes room it may begin.
bool LogFile::canRotate()
{
    State& state = *mState;
    // A file at its own limit says nothing of the next one (setrlimit(2), RLIMIT_FSIZE).
    if (state.error == 0 || state.error == EFBIG)
        return true;
    return mSettings.maxFileCount > 1 &&
           RemoveOldest(mPath, {}, mSettings.maxFileCount - 2, state.notice) != 0;
}

/// The new file is whole, with the mode and owner of the old one, before it takes the path at once:
/// wherever a kill comes, there is a file at the path, and it is as the operator wants it.
void LogFile::rotate()
{
    State& state = *mState;
    const std::string mark = state.period.has(state.firstSeconds)
                                 ? SizeRotationMark(state.firstSeconds)
                                 : TimeRotationMark(state.period.inside, mSettings.interval);
    ScopedFd fd(MakeAside(mPath, mark, state.putAside));
    int error = errno;
    if (!fd) {
        reportTrouble("Fail to initialize log file '" + ToUtf8Path(state.putAside) + "'", error);
        return;
    }
    struct stat old = {};
    static_cast<void>(::fstat(state.fd.get(), &old));
    // The owner as far as that is allowed.
    static_cast<void>(::fchown(fd.get(), old.st_uid, old.st_gid) == 0);
    static_cast<void>(::fchmod(fd.get(), old.st_mode & 07777));
    if (!Exchange(mPath, state.putAside)) {
        error = errno;
        static_cast<void>(::unlink(state.putAside.c_str()));
        // Gone when a process that does not share the file, a forked child say, was faster.
        if (error == ENOENT)
            return lookAtPath();
        reportTrouble("Fail to rename log file '" + mSettings.pathUtf8 + "'", error);
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
    if (Exchange(mPath, state.putAside))
        static_cast<void>(::unlink(state.putAside.c_str()));
    adopt(std::move(state.previous));
}

void LogFile::finishRotation()
{
    State& state = *mState;
    state.previous.reset();
    if (mSettings.maxFileCount != 0)
        RemoveOldest(mPath, state.putAside, mSettings.maxFileCount - 1, state.notice);
}

/// Lines that were made in one period and written in the next must not make the file look like one
/// of the next, to another process or after a restart.
void LogFile::keepTime() const
{
    const State& state = *mState;
    if (mSettings.interval == Interval::None || !state.isRegular)
        return;
    const long now = kySystemUtils::GetSecElapsedSinceEpoch();
    if (now < state.period.end && state.lastSeconds < now + LogPeriod::sDaySeconds)
        return;
    const std::timespec times[2] = {{0, UTIME_OMIT}, {state.lastSeconds, 0}};
    static_cast<void>(::futimens(state.fd.get(), times));
}

}  // namespace ky::impl

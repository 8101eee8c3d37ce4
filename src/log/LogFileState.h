#pragma once

#include "log/LogFile.h"
#include "log/LogText.h"

#include "frame/ProcessId.h"

#include <limits>

#include <fcntl.h>
#include <sys/types.h>

namespace ky::impl {

constexpr int sLogFileFlags = O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

/// The lines of one day, week or month; without a rotation by time, all lines.
struct LogPeriod {
    static constexpr long sDaySeconds = 86400;

    /// A line that is late by less than a day belongs to the period; if it is more, the clock was
    /// set back. An entry that has never got a time belongs anywhere.
    bool has(long seconds) const
    {
        return seconds == 0 || (seconds < end && seconds >= inside - sDaySeconds);
    }

    long inside = std::numeric_limits<long>::min() + sDaySeconds;
    long end = std::numeric_limits<long>::max();
};

/// Holds a lock between processes, if there is one.
class Locked {
public:
    explicit Locked(SystemLock* lock) : mLock(lock)
    {
        if (mLock != nullptr)
            mLock->lock();
    }
    ~Locked()
    {
        if (mLock != nullptr)
            mLock->unlock();
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    SystemLock* const mLock;
};

/// What changes after the opening.
struct LogFile::State {
    const unsigned long processId = CachedProcessId();
    const State* parents = nullptr;  // a fork may have found it half changed

    ScopedFd fd;
    dev_t device = 0;
    ino_t inode = 0;
    long size = 0;  // as this process knows it
    bool isRegular = true;
    bool isAtPath = false;
    bool isTorn = false;  // the last line has no end
    LogPeriod period;     // of the file's lines

    // While a file is put aside and nothing has been written yet to the one that follows it.
    ScopedFd previous;
    std::string putAside;

    // What is gathered, all of one period.
    LogText text;
    LogPeriod textPeriod;
    long firstSeconds = 0;
    long lastSeconds = 0;

    // While the text is being written, behind a head of our own.
    bool isWriting = false;
    long start = 0;
    std::string head;
    bool tellsLoss = false;

    int error = 0;  // of the last write
    unsigned long lost = 0;
    unsigned long reportedLost = 0;
    unsigned long reportedMs = 0;
    std::string notice;
};

}  // namespace ky::impl

#include "ky/MemoryWatchDog.h"

#include "ky/kyLog.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystemUtils.h"

#include "log/ExitFlush.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <future>
#include <iostream>  // so that sLastExit is made after the standard streams
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include <poll.h>
#include <unistd.h>
#include <cstdlib>

namespace ky {
namespace {

constexpr unsigned long sNoTimeLimit = ~0UL;
constexpr unsigned long sCheckPeriodMs = 200;
constexpr std::chrono::milliseconds sLogPatience(1000);

constexpr int sNoCode = -1;
constinit std::atomic<int> sCodeOfStuckProcess{sNoCode};

/// Destroyed after all that the host has made, and before the standard streams are flushed: that
/// would wait for ever for whoever is stuck in one of them.
struct LastExit {
    constexpr LastExit() noexcept = default;
    ~LastExit()
    {
        const int code = sCodeOfStuckProcess.load(std::memory_order_relaxed);
        if (code != sNoCode)
            ::_exit(code);
    }
    LastExit(const LastExit&) = delete;
    LastExit& operator=(const LastExit&) = delete;
};
const LastExit sLastExit;

std::string Humanised(std::uint64_t bytes)
{
    return kyStringUtils::humanizeNumberGeneric<unsigned long>(bytes, 3, 1, true, true, false) +
           "B";
}

/// For a process that has no thread left: the log would be waited for without limit here.
void WriteToStandardError(std::string line)
{
    ::pollfd error = {STDERR_FILENO, POLLOUT, 0};
    if (::poll(&error, 1, 0) != 1)
        return;
    // What is called writable takes that much at once (pipe(7)).
    line.resize(std::min<std::size_t>(line.size(), PIPE_BUF - 1));
    line.append(1, '\n');
    static_cast<void>(::write(STDERR_FILENO, line.data(), line.size()) > 0);
}

/// Whether the line was through the sinks in time. Written by a thread of its own, since a stuck
/// sink blocks whoever writes to it, or waits for it, for ever.
bool LogInTime(const std::string& line)
{
    auto written = std::make_shared<std::promise<void>>();
    const std::future<void> isWritten = written->get_future();
    try {
        std::thread([line, written] {
            try {
                kyLogObject(kyLog::Critical).setFlushNow() << line;
                written->set_value();
            } catch (...) {
                // Out of memory: the process ends without the line.
            }
        }).detach();
    } catch (const std::system_error&) {
        WriteToStandardError(line);
        return false;
    }
    return isWritten.wait_for(sLogPatience) == std::future_status::ready;
}

}  // namespace

// The shift drops what does not fit.
MemoryWatchDog::MemoryWatchDog(const std::string& name, unsigned long thresholdMiB, int exitCode)
    : mExitCode(exitCode), mThresholdBytes(std::uint64_t{thresholdMiB} << 20), mName(name)
{
    startLibraryThread("kyMemWatch");
    setMonitoringEnabled(true);
}

MemoryWatchDog::~MemoryWatchDog()
{
    // In a forked child nobody would ever release the mutex that the thread held.
    if (isInherited())
        return;
    {
        const kyMutexLocker lock(mMutex);
        mShouldStop = true;
        mWake.wakeAll();
    }
    waitThread(INT_MAX);
}

void MemoryWatchDog::setMonitoringEnabled(bool enabled)
{
    if (isInherited())
        return;
    {
        const kyMutexLocker lock(mMutex);
        mIsEnabled = enabled;
        mWake.wakeAll();
    }
    // Last, and not under the mutex: a log that is stuck must not keep the thread from its checks.
    if (enabled)
        kyLogObject(kyLog::Trace) << logPrefix() << "start with a threshold of "
                                  << Humanised(mThresholdBytes);
    else
        kyLogObject(kyLog::Trace) << logPrefix() << "stop";
}

bool MemoryWatchDog::isMonitoringEnabled()
{
    if (isInherited())
        return false;
    const kyMutexLocker lock(mMutex);
    return mIsEnabled;
}

std::string MemoryWatchDog::logPrefix() const
{
    return "Memory watchdog '" + mName + "' : ";
}

int MemoryWatchDog::run()
{
    while (waitForCheck()) {
        // A failed reading is 0, which exceeds nothing.
        const auto used = static_cast<unsigned long>(
            kySystemUtils::GetUsedRamQuantityInBytes(kySystemUtils::Resident));
        if (used <= mThresholdBytes)
            continue;
        kyMutexLocker lock(mMutex);
        // Disabled while the memory was read: the process is spared.
        if (!mIsEnabled || mShouldStop)
            continue;
        lock.unlock();
        endProcess(used);
    }
    return 0;
}

/// False when the thread has to end.
bool MemoryWatchDog::waitForCheck()
{
    const kyMutexLocker lock(mMutex);
    do {
        if (mShouldStop)
            return false;
        mWake.wait(&mMutex, mIsEnabled ? sCheckPeriodMs : sNoTimeLimit);
    } while (!mIsEnabled);
    return !mShouldStop;
}

void MemoryWatchDog::endProcess(unsigned long usedBytes) const
{
    bool isLogged = false;
    try {
        isLogged = LogInTime(logPrefix() + "process is using too much RAM " + Humanised(usedBytes) +
                             ", it will be killed, threshold was " + Humanised(mThresholdBytes));
    } catch (...) {
        // Out of memory: all the more reason to end.
    }
    if (!isLogged) {
        impl::SkipFlushAtExit();
        constexpr int codeMask = 0xff;  // exit(3)
        sCodeOfStuckProcess.store(mExitCode & codeMask, std::memory_order_relaxed);
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): told in the header.
    std::exit(mExitCode);
}

}  // namespace ky

#pragma once

#include "ky/kyExport.h"
#include "ky/kyMutex.h"
#include "ky/kyThread.h"
#include "ky/kyWaitCondition.h"

#include <cstdint>
#include <string>

namespace ky {

/// Ends the process when it uses too much memory: the last resort of a program that must not take
/// the machine down with it.
///
/// Every 200 ms of the wall clock (`kyWaitCondition::wait`) it reads the resident memory
/// (`kySystemUtils::Resident`), which takes a descriptor and some heap: without them it sees
/// nothing. Above the threshold it logs one CRITICAL line and calls exit(3) on its own thread, so
/// the exit handlers run there. They may destroy the watchdog, which may be static. To call exit(3)
/// or to return from main meanwhile is undefined in glibc.
///
/// Where the log is stuck the process ends all the same, a second later, once the host's exit
/// handlers are through; what stdio still holds is lost then. Handlers from before a dlopen(3) of
/// the library are left out. The process stays when a handler or a static destructor waits for
/// the stuck log itself (`terminateKySystem`, a line with flush-now), and when a thread is stuck in
/// a stdio stream while the log is not. Where no thread can be had for the line, it goes to
/// standard error alone, and the process ends as with a stuck log.
///
/// Before the full level of the library its thread, mutex and condition log a CRITICAL line each,
/// where there is a log. Setting and asking are for any thread. In a forked child nothing is
/// watched: enabling does nothing there, and the object can be destroyed.
class KY_API MemoryWatchDog final : private kyThread {
public:
    /// Begins to watch at once, with a threshold of `thresholdMiB` * 2^20 bytes modulo 2^64. 0 ends
    /// the process at the first check. `name` stands in the log lines. Throws `std::system_error`
    /// when the system refuses a thread.
    MemoryWatchDog(const std::string& name, unsigned long thresholdMiB, int exitCode);

    /// Stops watching and waits for a check that is on its way. Does not wait on the watchdog's own
    /// thread.
    ~MemoryWatchDog() override;

    /// Enabling checks at once, disabling stops the checks and costs no wake-ups. Logs a TRACE line
    /// each time.
    void setMonitoringEnabled(bool enabled);

    /// False in a forked child.
    bool isMonitoringEnabled();

protected:
    int run() override;

private:
    bool waitForCheck();
    std::string logPrefix() const;
    [[noreturn]] void endProcess(unsigned long usedBytes) const;

    const int mExitCode;
    const std::uint64_t mThresholdBytes;
    const std::string mName;
    kyMutex mMutex;
    kyWaitCondition mWake;
    // Under mMutex.
    bool mIsEnabled = false;
    bool mShouldStop = false;
};

}  // namespace ky

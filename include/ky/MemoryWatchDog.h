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
/// Every 200 ms it reads the resident memory (`kySystemUtils::Resident`). Above the threshold it
/// logs one CRITICAL line and calls exit(3) on its own thread, so the exit handlers run there. They
/// may destroy the watchdog, which may be static. Where the log is stuck the process ends all the
/// same, a second later, once the host's exit handlers are through; what stdio still holds is lost
/// then. To call exit(3), or to return from main, while the watchdog does is undefined in glibc.
///
/// Setting and asking are for any thread. In a forked child nothing is watched: enabling does
/// nothing there, and the object can be destroyed.
class KY_API MemoryWatchDog final : private kyThread {
public:
    /// Begins to watch at once, with a threshold of `thresholdMiB` * 2^20 bytes modulo 2^64. 0 ends
    /// the process at the first check. `name` stands in the log lines.
    MemoryWatchDog(const std::string& name, unsigned long thresholdMiB, int exitCode);

    /// Stops watching and waits for a check that is on its way. Does not wait on the watchdog's own
    /// thread.
    ~MemoryWatchDog() override;

    /// Enabling checks at once, disabling stops the checks and costs no wake-ups. Logs a TRACE line
    /// each time.
    void setMonitoringEnabled(bool enabled);
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

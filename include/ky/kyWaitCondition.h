#pragma once

#include "ky/kyExport.h"
#include "ky/kyMutex.h"

#include <memory>

namespace ky {

/// Where threads sleep until another thread wakes them, with a `kyMutex` around what they wait for.
///
/// Any member may be called from any thread; the condition must outlive every call on it. A wait
/// can end for nothing (pthread_cond_wait(3p)), so test what you wait for in a loop. In a forked
/// child an inherited condition can be destroyed and nothing else.
class KY_API kyWaitCondition {
public:
    /// Before full initialisation it logs one CRITICAL line, where there is a log already; the
    /// condition works anyway.
    kyWaitCondition();

    /// Logs the fork warning in a forked child (`CheckIfProcessForkAfterThreadSafeInit`).
    virtual ~kyWaitCondition();
    kyWaitCondition(const kyWaitCondition&) = delete;
    kyWaitCondition& operator=(const kyWaitCondition&) = delete;

    /// Releases `mutex`, sleeps, and takes it again. The caller holds `mutex` exactly once: one
    /// that it holds twice is not released. All waits that overlap use the same mutex.
    ///
    /// The largest `timeoutMs` waits without limit. Any other ends at a time of the wall clock
    /// (CLOCK_REALTIME), so a change of the clock stretches or shortens the wait; 0 sleeps for no
    /// time. From about 2^31 seconds on the end lies anywhere, also in the past, or the wait
    /// returns true at once.
    ///
    /// False exactly when the time is over, or the clock cannot be read; true for anything else.
    bool wait(kyMutex* mutex, unsigned long timeoutMs);

    /// Wakes all that wait now. Nothing is kept for later waiters.
    void wakeAll();

    /// Wakes one of those that wait now. Nothing is kept for later waiters.
    void wakeOne();

    /// Called by the lifecycle. There is one implementation on this platform: does nothing.
    static void FindBestImplementation();

private:
    struct Native;
    const std::unique_ptr<Native> mNative;
};

}  // namespace ky

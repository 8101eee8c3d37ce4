#pragma once

#include "ky/kyMutex.h"

#include <atomic>

namespace ky::impl {

/// What a condition variable does, for threads that a crash handler may interrupt while they wait.
/// A broadcast to a condition waits for earlier waiters that have not left yet, and one whose
/// signal handler runs on top of the wait does not leave: handler and log would wait for each
/// other. Here nobody waits for a waiter.
///
/// All members are for a caller that holds `mutex`, once.
class Event {
public:
    /// Waits for a `wakeAll` after the call, and may return without one.
    void wait(kyMutex& mutex)
    {
        const int seen = mCount.load(std::memory_order_relaxed);
        mutex.unlock();
        mCount.wait(seen, std::memory_order_relaxed);
        mutex.lock();
    }

    void wakeAll()
    {
        mCount.fetch_add(1, std::memory_order_relaxed);
        mCount.notify_all();
    }

private:
    std::atomic<int> mCount{0};  // changes under the mutex, which orders all that is waited for
};

}  // namespace ky::impl

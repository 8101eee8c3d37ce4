#pragma once

#include <pthread.h>

namespace ky::impl {

/// A process-wide recursive lock that fork(2) finds free and leaves free in the child: its owner
/// registers `Take`, `Give` and `Give` with pthread_atfork(3). `Tag` tells one lock from another.
///
/// Recursion is counted per thread instead of by the mutex, whose count only the parent's thread
/// could undo.
template <typename Tag>
class ForkSafeLock {
public:
    ForkSafeLock() { Take(); }
    ~ForkSafeLock() { Give(); }
    ForkSafeLock(const ForkSafeLock&) = delete;
    ForkSafeLock& operator=(const ForkSafeLock&) = delete;

    /// Whether the calling thread holds it, as in a signal handler that has interrupted it there.
    static bool IsHeldHere() noexcept { return tDepth != 0; }

    static void Take()
    {
        if (tDepth++ == 0)
            ::pthread_mutex_lock(&sMutex);
    }
    /// For a crash handler. Without waiting.
    static bool TryTake()
    {
        if (tDepth == 0 && ::pthread_mutex_trylock(&sMutex) != 0)
            return false;
        ++tDepth;
        return true;
    }
    static void Give()
    {
        if (--tDepth == 0)
            ::pthread_mutex_unlock(&sMutex);
    }

private:
    static inline pthread_mutex_t sMutex = PTHREAD_MUTEX_INITIALIZER;
    static inline constinit thread_local int tDepth = 0;
};

}  // namespace ky::impl

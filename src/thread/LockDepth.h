#pragma once

#include "ky/kyMutex.h"

#include <sys/types.h>
#include <unistd.h>

namespace ky::impl {

/// How often the calling thread holds a recursive mutex. POSIX has no question for it; glibc's own
/// lock compares the owner in the same way, and the layout is part of its ABI
/// (PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP).
inline unsigned int LockDepth(const kyMutex& mutex)
{
    const auto& native = mutex.getMutexData()->__data;
    // Only this thread itself writes its own id there.
    if (__atomic_load_n(&native.__owner, __ATOMIC_RELAXED) != ::gettid())
        return 0;
    return native.__count;
}

inline void SetLockDepth(kyMutex& mutex, unsigned int depth)
{
    unsigned int now = LockDepth(mutex);
    for (; now > depth; --now)
        mutex.unlock();
    for (; now < depth; ++now)
        mutex.lock();
}

}  // namespace ky::impl

#include "ky/kyMutex.h"

#include "ky/kySystem.h"

#include "frame/ProcessId.h"
#include "thread/EarlyCreation.h"

namespace ky {
namespace impl {

NativeMutex::NativeMutex() : processId(CachedProcessId())
{
    ::pthread_mutexattr_init(&attribute);
    ::pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE);
    ::pthread_mutex_init(&mutex, &attribute);
}

NativeMutex::~NativeMutex()
{
    if (processId != CachedProcessId())
        return;
    ::pthread_mutex_destroy(&mutex);
    ::pthread_mutexattr_destroy(&attribute);
}

}  // namespace impl

kyMutex::kyMutex() : mNative(std::make_unique<impl::NativeMutex>())
{
    impl::ReportEarlyCreation(impl::sEarlyMutexText);
}

kyMutex::~kyMutex()
{
    CheckIfProcessForkAfterThreadSafeInit();
}

kyMutex2::kyMutex2() : mNative(std::make_unique<impl::NativeMutex>())
{
    impl::ReportEarlyCreation(impl::sEarlyMutexText);
}

// kept: no fork check, unlike kyMutex.
kyMutex2::~kyMutex2() = default;

}  // namespace ky

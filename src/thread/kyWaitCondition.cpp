#include "ky/kyWaitCondition.h"

#include "ky/kySystem.h"

#include "frame/ProcessId.h"
#include "thread/EarlyCreation.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace ky {
namespace {

constexpr unsigned long sNoTimeLimit = ~0UL;
constexpr std::int64_t sNanosecondsPerSecond = 1000000000;

// kept: the seconds are cut to 32 bits and the rest wraps in 64, so that from 2^31 seconds on the
// result has no meaning. Unsigned, because signed overflow could become anything.
timespec Deadline(const timespec& now, unsigned long timeoutMs)
{
    const auto seconds = static_cast<std::int32_t>(static_cast<std::int64_t>(timeoutMs) / 1000);
    const std::uint64_t restMs = timeoutMs - static_cast<std::uint64_t>(seconds) * 1000;
    const auto nanoseconds =
        static_cast<std::int64_t>(restMs * 1000000 + static_cast<std::uint64_t>(now.tv_nsec));
    timespec deadline;
    deadline.tv_sec = now.tv_sec + seconds + nanoseconds / sNanosecondsPerSecond;
    deadline.tv_nsec = nanoseconds % sNanosecondsPerSecond;
    return deadline;
}

}  // namespace

struct kyWaitCondition::Native {
    Native() : processId(impl::CachedProcessId()) { ::pthread_cond_init(&condition, nullptr); }
    ~Native()
    {
        // In a forked child it would wait for ever for the parent's waiters to leave.
        if (processId == impl::CachedProcessId())
            ::pthread_cond_destroy(&condition);
    }
    Native(const Native&) = delete;
    Native& operator=(const Native&) = delete;

    pthread_cond_t condition = {};
    const unsigned long processId;
};

kyWaitCondition::kyWaitCondition() : mNative(std::make_unique<Native>())
{
    impl::ReportEarlyCreation("WaitCondition created before full init of kySystem");
}

kyWaitCondition::~kyWaitCondition()
{
    CheckIfProcessForkAfterThreadSafeInit();
}

bool kyWaitCondition::wait(kyMutex* mutex, unsigned long timeoutMs)
{
    if (timeoutMs == sNoTimeLimit) {
        ::pthread_cond_wait(&mNative->condition, mutex->getMutexData());
        return true;
    }
    timespec now;
    if (::clock_gettime(CLOCK_REALTIME, &now) != 0)
        return false;
    const timespec deadline = Deadline(now, timeoutMs);
    // kept: every other result counts as woken, EINVAL for negative nanoseconds too.
    return ::pthread_cond_timedwait(&mNative->condition, mutex->getMutexData(), &deadline) !=
           ETIMEDOUT;
}

void kyWaitCondition::wakeAll()
{
    ::pthread_cond_broadcast(&mNative->condition);
}

void kyWaitCondition::wakeOne()
{
    ::pthread_cond_signal(&mNative->condition);
}

void kyWaitCondition::FindBestImplementation() {}

}  // namespace ky

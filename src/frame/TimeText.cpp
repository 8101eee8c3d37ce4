#include "frame/TimeText.h"

#include "frame/ForkSafeLock.h"

#include <atomic>

#include <pthread.h>
#include <ctime>

namespace ky::impl {
namespace {

constinit std::atomic<unsigned int> sGeneration{1};

// The C library has a lock of its own around the time zone and does not renew it in a forked
// child, where the first time text would hang. Our calls wait for the fork instead.
using ZoneLock = ForkSafeLock<struct ZoneLockTag>;

/// In a constructor of the library, so that hooks registered later take their locks first and may
/// ask for the time while they hold them.
__attribute__((constructor)) void KeepForkOutOfTimeTexts()
{
    ::pthread_atfork(&ZoneLock::Take, &ZoneLock::Give, &ZoneLock::Give);
}

}  // namespace

std::string FormatTime(long seconds, const char* format, bool localTime)
{
    const std::time_t time = seconds;
    std::tm fields{};
    if (ZoneLock::IsHeldHere())
        return {};
    const ZoneLock lock;
    if ((localTime ? ::localtime_r(&time, &fields) : ::gmtime_r(&time, &fields)) == nullptr)
        return {};
    char text[129];
    // On overflow strftime leaves the buffer partly written, so only its result counts.
    const std::size_t length = std::strftime(text, sizeof text, format, &fields);
    return {text, length};
}

void TakeTimeZone()
{
    const ZoneLock lock;
    ::tzset();
    sGeneration.fetch_add(1, std::memory_order_relaxed);
}

unsigned int TimeZoneGeneration() noexcept
{
    return sGeneration.load(std::memory_order_relaxed);
}

}  // namespace ky::impl

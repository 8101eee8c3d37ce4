#include "frame/TimeText.h"

#include <atomic>

#include <ctime>

namespace ky::impl {
namespace {

constinit std::atomic<unsigned int> sGeneration{1};

}  // namespace

std::string FormatTime(long seconds, const char* format, bool localTime)
{
    const std::time_t time = seconds;
    std::tm fields{};
    if ((localTime ? ::localtime_r(&time, &fields) : ::gmtime_r(&time, &fields)) == nullptr)
        return {};
    char text[129];
    // On overflow strftime leaves the buffer partly written, so only its result counts.
    const std::size_t length = std::strftime(text, sizeof text, format, &fields);
    return {text, length};
}

void TakeTimeZone()
{
    ::tzset();
    sGeneration.fetch_add(1, std::memory_order_relaxed);
}

unsigned int TimeZoneGeneration() noexcept
{
    return sGeneration.load(std::memory_order_relaxed);
}

}  // namespace ky::impl

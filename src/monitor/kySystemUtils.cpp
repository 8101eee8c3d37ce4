#include "ky/kySystemUtils.h"

#include "ky/kyStringUtils.h"

#include "frame/TimeText.h"
#include "fs/ScopedHandles.h"
#include "text/Ascii.h"
#include "text/Charset.h"

#include <string_view>

#include <sys/time.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace ky {
namespace {

constexpr int sStatusLineBytes = 128;
constexpr long sBytesPerKibibyte = 1024;

long ParseResidentLine(const char* line)
{
    while (*line != '\0' && (*line < '0' || *line > '9'))
        ++line;
    if (*line == '\0')
        return 0;
    const locale_t* const cLocale = kyStringUtils::msCLocale;
    const long kibibytes = cLocale != nullptr ? ::strtoll_l(line, nullptr, 0, *cLocale)
                                              : std::strtoll(line, nullptr, 0);
    return kibibytes * sBytesPerKibibyte;
}

}  // namespace

unsigned long kySystemUtils::GetTimeBaseMs()
{
    std::timespec now{};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    return static_cast<unsigned long>(now.tv_sec) * 1000UL +
           static_cast<unsigned long>(now.tv_nsec) / 1000000UL;
}

long kySystemUtils::GetTimeBaseSec()
{
    return static_cast<long>(GetTimeBaseMs() / 1000UL);
}

long kySystemUtils::GetMSecElapsedSinceEpoch()
{
    ::timeval now{};
    ::gettimeofday(&now, nullptr);
    return now.tv_sec * 1000L + now.tv_usec / 1000L;
}

long kySystemUtils::GetSecElapsedSinceEpoch()
{
    return GetMSecElapsedSinceEpoch() / 1000L;
}

std::string kySystemUtils::ConvertSecElapsedSinceEpochToString(long seconds, const char* format,
                                                               bool localTime)
{
    std::string text = impl::FormatTime(seconds, format, localTime);
    // The log stamps lines before the string utilities exist and after they are gone: a time in
    // the local set is better than none.
    if (impl::IsAscii(text) || !impl::IsStringUtilsInitialized())
        return text;
    return kyStringUtils::convertCharset(text, kyStringUtils::CharSetLocal8Bit,
                                         kyStringUtils::CharSetUtf8);
}

std::string kySystemUtils::GetCurrentTimeAsString(const char* format, bool localTime)
{
    return ConvertSecElapsedSinceEpochToString(GetSecElapsedSinceEpoch(), format, localTime);
}

std::string kySystemUtils::GetCurrentDateTimeISO(bool localTime)
{
    return GetCurrentTimeAsString("%FT%T%z", localTime);
}

unsigned long kySystemUtils::GetCurrentProcessID()
{
    return static_cast<unsigned long>(::getpid());
}

long kySystemUtils::GetParentProcessID()
{
    return ::getppid();
}

long kySystemUtils::GetUsedRamQuantityInBytes(RamMetric metric)
{
    const impl::ScopedFile status(std::fopen("/proc/self/status", "re"));
    char line[sStatusLineBytes];
    while (status && std::fgets(line, sizeof line, status.get()) != nullptr) {
        if (metric == Unavailable)
            return 0;
        if (std::string_view(line).substr(0, 6) == "VmRSS:")
            return ParseResidentLine(line);
    }
    return 0;
}

void kySystemUtils::InitializeSystemUtils()
{
    impl::TakeTimeZone();
}

void kySystemUtils::TerminateSystemUtils() {}

}  // namespace ky

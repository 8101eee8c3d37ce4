#include "log/LogTime.h"

#include "ky/kySystemUtils.h"

#include "frame/LogLine.h"
#include "frame/TimeText.h"
#include "text/Charset.h"

#include <algorithm>
#include <string>

#include <cstring>

namespace ky::impl {
namespace {

struct TimeCache {
    long seconds;
    unsigned int generation;  // of the time zone; 0, which no zone has, while nothing is kept
    bool converted;
    unsigned short size;
    char text[512];  // 128 bytes in any local set are fewer in UTF-8
};

constinit thread_local TimeCache tCache = {};

}  // namespace

std::string_view LogTime(long seconds)
{
    TimeCache& cache = tCache;
    const unsigned int generation = TimeZoneGeneration();
    // A name of a month that could not be converted yet is worth another try.
    const bool canConvert = IsStringUtilsInitialized();
    if (cache.generation != generation || cache.seconds != seconds ||
        cache.converted != canConvert) {
        std::string text =
            kySystemUtils::ConvertSecElapsedSinceEpochToString(seconds, sLogTimeFormat, true);
        // A signal handler that has interrupted a conversion cannot convert.
        if (text.empty())
            text = FormatTime(seconds, sLogTimeFormat, true);
        cache.size = static_cast<unsigned short>(std::min(text.size(), sizeof cache.text));
        std::memcpy(cache.text, text.data(), cache.size);
        cache.seconds = seconds;
        cache.generation = generation;
        cache.converted = canConvert;
    }
    return {cache.text, cache.size};
}

}  // namespace ky::impl

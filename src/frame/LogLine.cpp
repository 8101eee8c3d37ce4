#include "frame/LogLine.h"

#include "frame/ProcessId.h"

#include <charconv>
#include <iterator>

namespace ky::impl {
namespace {

constexpr const char* sLevelNames[] = {"DEV", "TRACE", "DEBUG", "INFO", "WARNING", "CRITICAL"};
constexpr std::size_t sMaxSystemLogBytes = 16384;
constexpr std::size_t sLongestContinuation = 3;

const char* LogLevelName(int level)
{
    return level >= 0 && level < static_cast<int>(std::size(sLevelNames)) ? sLevelNames[level]
                                                                          : "UNKNOWN";
}

bool IsContinuationByte(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

}  // namespace

void AppendLogPrefix(std::string& out, int level, std::string_view subType,
                     std::string_view threadId, std::optional<std::string_view> timeText)
{
    out.append(LogLevelName(level));
    if (!subType.empty())
        out.append(1, '(').append(subType).append(1, ')');
    char digits[24];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), CachedProcessId()).ptr;
    out.append(" PID ").append(digits, end).append(1, ' ');
    if (!threadId.empty())
        out.append("TID ").append(threadId).append(1, ' ');
    if (timeText)
        out.append(*timeText).append(1, ' ');
    out.append(": ");
}

std::string LineWithRoom(std::string_view prefix, std::string_view message)
{
    std::string line;
    line.reserve(prefix.size() + message.size() + 1);
    return line.append(prefix).append(message);
}

void CutToSystemLogSize(std::string& textUtf8)
{
    if (textUtf8.size() <= sMaxSystemLogBytes)
        return;
    std::size_t size = sMaxSystemLogBytes;
    while (sMaxSystemLogBytes - size < sLongestContinuation && IsContinuationByte(textUtf8[size]))
        --size;
    // Not UTF-8 at all: there is no code point to save.
    textUtf8.resize(IsContinuationByte(textUtf8[size]) ? sMaxSystemLogBytes : size);
}

}  // namespace ky::impl

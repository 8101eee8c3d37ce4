#include "frame/LogLine.h"

#include "frame/ProcessId.h"

#include <charconv>
#include <iterator>
#include <ostream>

#include <syslog.h>

namespace ky::impl {
namespace {

constexpr const char* sLevelNames[] = {"DEV", "TRACE", "DEBUG", "INFO", "WARNING", "CRITICAL"};
constexpr std::size_t sMaxSystemLogBytes = 16384;
constexpr std::size_t sLongestContinuation = 3;

bool IsContinuationByte(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

}  // namespace

const char* LogLevelName(int level) noexcept
{
    return level >= 0 && level < static_cast<int>(std::size(sLevelNames)) ? sLevelNames[level]
                                                                          : "UNKNOWN";
}

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

void WriteLine(std::ostream& stream, std::string& line)
{
    const auto before = stream.rdstate();
    line.push_back('\n');
    try {
        stream.write(line.data(), static_cast<std::streamsize>(line.size()));
        stream.flush();
    } catch (const std::ios_base::failure&) {
        // The host asked its stream to throw; a log line must not.
    }
    line.pop_back();
    if (stream.rdstate() != before && before == std::ios_base::goodbit)
        stream.clear();
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

void SendToSystemLog(int level, const std::string& localText)
{
    constexpr int warning = 4;
    constexpr int critical = 5;
    const int priority = level == warning ? LOG_WARNING : level == critical ? LOG_CRIT : LOG_INFO;
    ::syslog(priority, "%s", localText.c_str());
}

}  // namespace ky::impl

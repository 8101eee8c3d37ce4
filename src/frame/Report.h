#pragma once

#include <string_view>

namespace ky::impl {

/// The entry levels of the log, for the floors below it.
namespace ReportLevel {
constexpr int Warning = 4;
constexpr int Critical = 5;
}  // namespace ReportLevel

/// Receives a report as a log entry without sub type. `systemLogName` may be null.
using ReportSink = void (*)(int level, const char* systemLogName, std::string_view text,
                            bool flushNow);

/// Receives lines of a crash report, each ended by a zero byte but for the last, and returns when
/// they are through the sinks, or when the log is stuck.
using CrashSink = void (*)(std::string_view lines);

/// The log puts itself behind the seam while it has an instance, nulls withdraw it.
void SetReportSinks(ReportSink sink, CrashSink crashSink) noexcept;

/// Writes one message of the library through the log. Without a log instance the line goes to
/// standard output or, when it has a system-log name, to the system log and standard error, as the
/// line of a log object without instance does. Any thread. Leaves `errno` as it was.
void Report(int level, const char* systemLogName, std::string_view text, bool flushNow = true);

/// The same for what is worth a line only in a log: silent without an instance, and silent when
/// the log itself caused it on this thread, which would otherwise go round for ever.
void ReportIfLogged(int level, const char* systemLogName, std::string_view text,
                    bool flushNow = true);

/// For the crash handler: CRITICAL reports with the system-log name "kySystem", one for each of
/// `lines`, in each of which but the last a zero byte ends the line: a newline may be part of it.
/// They go through the log in one piece, since each piece waits for all that others have queued,
/// and are through the sinks when the call returns, which does not wait for ever for a log that is
/// stuck.
void ReportFromCrash(std::string_view lines);

/// Takes the first line off such lines.
inline std::string_view TakeCrashLine(std::string_view& lines) noexcept
{
    const std::string_view line = lines.substr(0, lines.find('\0'));
    lines.remove_prefix(line.size() < lines.size() ? line.size() + 1 : lines.size());
    return line;
}

}  // namespace ky::impl

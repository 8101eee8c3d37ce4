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

/// Receives a line of a crash report and returns when it is through the sinks, or when the log is
/// stuck.
using CrashSink = void (*)(std::string_view text);

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

/// For the crash handler: a CRITICAL report with the system-log name "kySystem" that is through
/// the sinks when the call returns, and does not wait for ever for a log that is stuck.
void ReportFromCrash(std::string_view text);

}  // namespace ky::impl

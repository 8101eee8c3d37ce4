#include "frame/Report.h"

#include "frame/LogLine.h"
#include "frame/TimeText.h"
#include "frame/Undisturbed.h"

#include <atomic>
#include <iostream>
#include <string>

#include <ctime>

namespace ky::impl {
namespace {

constinit std::atomic<ReportSink> sSink{nullptr};
constinit std::atomic<CrashSink> sCrashSink{nullptr};
constinit thread_local bool tReporting = false;

class ReportingMark {
public:
    ReportingMark() noexcept { tReporting = true; }
    ~ReportingMark() { tReporting = false; }
    ReportingMark(const ReportingMark&) = delete;
    ReportingMark& operator=(const ReportingMark&) = delete;
};

template <typename Sender>
void WriteWithoutLog(int level, const char* systemLogName, std::string_view text, Sender send)
{
    const std::string time = FormatTime(::time(nullptr), sLogTimeFormat, true);
    std::string line;
    const bool toSystemLog = systemLogName != nullptr && *systemLogName != '\0';
    if (toSystemLog)
        line.append(systemLogName).append(" : ");
    AppendLogPrefix(line, level, {}, {}, time);
    line.append(text);
    if (!toSystemLog)
        return WriteLine(std::cout, line);
    CutToSystemLogSize(line);
    WriteLine(std::cerr, line);
    send(level, line);
}

}  // namespace

void SetReportSinks(ReportSink sink, CrashSink crashSink) noexcept
{
    sSink.store(sink, std::memory_order_release);
    sCrashSink.store(crashSink, std::memory_order_release);
}

void Report(int level, const char* systemLogName, std::string_view text, bool flushNow)
{
    const Undisturbed undisturbed;
    if (const ReportSink sink = sSink.load(std::memory_order_acquire))
        sink(level, systemLogName, text, flushNow);
    else
        WriteWithoutLog(level, systemLogName, text, &SendToSystemLog);
}

void ReportIfLogged(int level, const char* systemLogName, std::string_view text, bool flushNow)
{
    const ReportSink sink = sSink.load(std::memory_order_acquire);
    if (sink == nullptr || tReporting)
        return;
    const Undisturbed undisturbed;
    const ReportingMark mark;
    sink(level, systemLogName, text, flushNow);
}

void ReportFromCrash(std::string_view lines)
{
    const Undisturbed undisturbed;
    if (const CrashSink sink = sCrashSink.load(std::memory_order_acquire))
        return sink(lines);
    CrashSystemLog systemLog;
    while (!lines.empty())
        WriteWithoutLog(ReportLevel::Critical, "kySystem", TakeCrashLine(lines),
                        [&](int level, const std::string& text) { systemLog.send(level, text); });
}

}  // namespace ky::impl

#include "frame/Report.h"

#include "frame/LogLine.h"
#include "frame/TimeText.h"

#include <atomic>
#include <iostream>
#include <string>

#include <cerrno>
#include <ctime>

namespace ky::impl {
namespace {

constinit std::atomic<ReportSink> sSink{nullptr};
constinit thread_local bool tReporting = false;

class ReportingMark {
public:
    ReportingMark() noexcept : mErrno(errno) { tReporting = true; }
    ~ReportingMark()
    {
        tReporting = false;
        errno = mErrno;
    }
    ReportingMark(const ReportingMark&) = delete;
    ReportingMark& operator=(const ReportingMark&) = delete;

private:
    const int mErrno;
};

void WriteWithoutLog(int level, const char* systemLogName, std::string_view text)
{
    const std::string time = FormatTime(::time(nullptr), sLogTimeFormat, true);
    std::string line;
    if (systemLogName != nullptr)
        line.append(systemLogName).append(" : ");
    AppendLogPrefix(line, level, {}, {}, time);
    line.append(text);
    if (systemLogName == nullptr)
        return WriteLine(std::cout, line);
    CutToSystemLogSize(line);
    WriteLine(std::cerr, line);
    SendToSystemLog(level, line);
}

}  // namespace

void SetReportSink(ReportSink sink) noexcept
{
    sSink.store(sink, std::memory_order_release);
}

void Report(int level, const char* systemLogName, std::string_view text, bool flushNow)
{
    const int savedErrno = errno;
    if (const ReportSink sink = sSink.load(std::memory_order_acquire))
        sink(level, systemLogName, text, flushNow);
    else
        WriteWithoutLog(level, systemLogName, text);
    errno = savedErrno;
}

void ReportIfLogged(int level, const char* systemLogName, std::string_view text, bool flushNow)
{
    const ReportSink sink = sSink.load(std::memory_order_acquire);
    if (sink == nullptr || tReporting)
        return;
    const ReportingMark mark;
    sink(level, systemLogName, text, flushNow);
}

void ReportFromCrash(std::string_view text)
{
    Report(ReportLevel::Critical, "kySystem", text, true);
}

}  // namespace ky::impl

#include "ky/kyLog.h"

#include "ky/kySystemUtils.h"

#include "frame/LogLine.h"
#include "frame/Report.h"
#include "log/LogParameters.h"
#include "text/Ascii.h"

#include <utility>

#include <syslog.h>

namespace ky {
namespace {

constexpr std::string_view sSubTypeSeparators = " ,;\\|/";

void ReportThroughLog(int level, const char* systemLogName, std::string_view text, bool flushNow)
{
    kyLogObject(level, nullptr, systemLogName).setFlushNow(flushNow) << text;
}

std::string Stripped(std::string_view text)
{
    while (!text.empty() && impl::IsAsciiSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && impl::IsAsciiSpace(text.back()))
        text.remove_suffix(1);
    return std::string(text);
}

/// The names between separators. Two separators in a row, as in "net, disk", name nothing: an
/// empty name would drop every DEBUG entry without sub type.
std::vector<std::string> SplitSubTypes(std::string_view text)
{
    std::vector<std::string> names;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find_first_of(sSubTypeSeparators), text.size());
        std::string name = Stripped(text.substr(0, end));
        if (!name.empty())
            names.push_back(std::move(name));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return names;
}

}  // namespace

constinit kyLog* kyLog::msInstance = nullptr;

kyLog::kyLog(bool /*threadSafe*/) : mParameters(std::make_unique<kyLogParameters>())
{
    for (std::atomic<bool>& enabled : mEnabled)
        enabled.store(true, std::memory_order_relaxed);
    setLogLevel(kyLogLevel::Normal);
}

kyLog::~kyLog() = default;

void kyLog::createInstance(bool threadSafe)
{
    if (msInstance != nullptr)
        return;
    __atomic_store_n(&msInstance, new kyLog(threadSafe), __ATOMIC_RELEASE);
    ::openlog(nullptr, 0, LOG_USER);
    impl::SetReportSink(&ReportThroughLog);
}

void kyLog::destroyInstance()
{
    impl::SetReportSink(nullptr);
    // Taken out first, so that whoever logs meanwhile finds no half-destroyed instance.
    const std::unique_ptr<kyLog> last(__atomic_exchange_n(&msInstance, nullptr, __ATOMIC_ACQ_REL));
}

void kyLog::setLogLevel(kyLogLevel level)
{
    const bool all = level == kyLogLevel::All;
    const bool debug = all || level == kyLogLevel::Debug;
    mEnabled[Dev].store(debug, std::memory_order_relaxed);
    mEnabled[Trace].store(all, std::memory_order_relaxed);
    mEnabled[Debug].store(debug, std::memory_order_relaxed);
}

kyLogLevel kyLog::getLogLevel() const
{
    if (!mEnabled[Debug].load(std::memory_order_relaxed))
        return kyLogLevel::Normal;
    return mEnabled[Trace].load(std::memory_order_relaxed) ? kyLogLevel::All : kyLogLevel::Debug;
}

void kyLog::setSubTypeEnabled(const char* subTypes, bool enabled)
{
    setSubTypeEnabled(SplitSubTypes(subTypes != nullptr ? subTypes : ""), enabled);
}

void kyLog::setSubTypeEnabled(const std::vector<std::string>& subTypes, bool enabled)
{
    for (const std::string& subType : subTypes) {
        if (enabled)
            mParameters->mDisabledSubTypes.erase(Stripped(subType));
        else
            mParameters->mDisabledSubTypes.insert(Stripped(subType));
    }
}

void kyLog::setEchoToConsole(bool echo)
{
    mParameters->mEchoToConsole = echo;
}

bool kyLog::installCustomHandler(CustomHandler handler, void* userData)
{
    if (handler != nullptr && mParameters->mHandler != nullptr)
        return false;
    mParameters->mHandler = handler;
    mParameters->mHandlerData = userData;
    return true;
}

void kyLog::flush() {}

void kyLog::Write(LogEntry& entry, bool flushNow)
{
    std::list<LogEntry> batch;
    batch.push_back(std::move(entry));
    writeBatch(batch, flushNow);
}

void kyLog::writeBatch(std::list<LogEntry>& batch, bool /*flushNow*/)
{
    WriteImpl(*mParameters, batch);
}

std::string kyLog::GetTime()
{
    return kySystemUtils::GetCurrentTimeAsString(impl::sLogTimeFormat, true);
}

}  // namespace ky

#include "ky/kyLog.h"

#include "ky/kySystemUtils.h"

#include "frame/ForkSafeLock.h"
#include "frame/LogLine.h"
#include "frame/Report.h"
#include "frame/ThreadId.h"
#include "log/ExitFlush.h"
#include "log/LogParameters.h"
#include "log/LogThread.h"
#include "log/LogWriter.h"
#include "log/Patience.h"
#include "text/Ascii.h"
#include "thread/LaunchMask.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include <pthread.h>
#include <syslog.h>
#include <cstdlib>

namespace ky {
namespace {

constexpr unsigned long sPatienceMs = 2000;

// What callers write under where no log thread serves them: in a forked child, whose log thread and
// lock are the parent's, and after the thread has ended. Recursive, since custom handlers log.
using CallersLock = impl::ForkSafeLock<struct CallersLockTag>;

// Kept reachable, so that it does not look like a leak.
constinit std::atomic<kyLogThread*> sAbandoned{nullptr};

// Set by the exit hook: whoever logs after it, a static destructor say, waits for its own line.
constinit std::atomic<bool> sExiting{false};

// A log that is stuck is waited for once, however many lines static destructors write.
constinit std::atomic<bool> sIsStuckAtExit{false};

constexpr std::string_view sSubTypeSeparators = " ,;\\|/";

void ReportThroughLog(int level, const char* systemLogName, std::string_view text, bool flushNow)
{
    kyLogObject(level, nullptr, systemLogName).setFlushNow(flushNow) << text;
}

std::string Stripped(std::string_view text)
{
    return std::string(impl::TrimAsciiSpace(text));
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

/// The lines of a crash report as entries, all of the same moment.
std::list<kyLog::LogEntry> CrashEntries(std::string_view lines, bool withThreadId)
{
    kyLog::LogEntry entry;
    entry.level = kyLog::Critical;
    entry.systemLogName = "kySystem";
    entry.timeMs = static_cast<unsigned long>(kySystemUtils::GetMSecElapsedSinceEpoch());
    if (withThreadId)
        entry.threadId = impl::CurrentThreadIdText();
    entry.computeLogPrefix(true);
    std::list<kyLog::LogEntry> entries;
    while (!lines.empty()) {
        entry.message = impl::TakeCrashLine(lines);
        entries.push_back(entry);
    }
    return entries;
}

}  // namespace

constinit kyLog* kyLog::msInstance = nullptr;

kyLog::kyLog(bool threadSafe) : mParameters(std::make_unique<kyLogParameters>())
{
    for (std::atomic<bool>& enabled : mEnabled)
        enabled.store(true, std::memory_order_relaxed);
    setLogLevel(kyLogLevel::Normal);
    if (threadSafe)
        makeThreadSafe();
}

kyLog::~kyLog()
{
    // In a forked child thread, locks and queue stay the parent's: the parent writes what is
    // queued, and to free a full queue here would first copy all of it.
    if (mThread && mThread->isInherited())
        sAbandoned.store(mThread.release(), std::memory_order_relaxed);
}

void kyLog::createInstance(bool threadSafe)
{
    if (msInstance != nullptr)
        return;
    __atomic_store_n(&msInstance, new kyLog(threadSafe), __ATOMIC_RELEASE);
    ::openlog(nullptr, 0, LOG_USER);
    impl::SetReportSinks(&ReportThroughLog, &kyLog::ReportFromCrash);
}

void kyLog::destroyInstance()
{
    impl::SetReportSinks(nullptr, nullptr);
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
    configure([&](kyLogParameters& parameters) {
        for (const std::string& subType : subTypes) {
            if (enabled)
                parameters.mDisabledSubTypes.erase(Stripped(subType));
            else
                parameters.mDisabledSubTypes.insert(Stripped(subType));
        }
    });
}

void kyLog::setEchoToConsole(bool echo)
{
    configure([&](kyLogParameters& parameters) { parameters.mEchoToConsole = echo; });
}

bool kyLog::installCustomHandler(CustomHandler handler, void* userData)
{
    bool installed = false;
    configure([&](kyLogParameters& parameters) {
        installed = handler == nullptr || parameters.mHandler == nullptr;
        if (!installed)
            return;
        parameters.mHandler = handler;
        parameters.mHandlerData = userData;
    });
    return installed;
}

void kyLog::configure(const std::function<void(kyLogParameters&)>& change)
{
    if (!mThread)
        return change(*mParameters);
    if (mThread->isServing() && mThread->configure(*mParameters, change))
        return;
    const CallersLock lock;
    change(*mParameters);
}

void kyLog::makeThreadSafe()
{
    if (mThread)
        return;
    RegisterProcessHooks();
    mThread = std::make_unique<kyLogThread>(*mParameters);
}

void kyLog::flush()
{
    if (mThread && mThread->isServing())
        mThread->flush();
}

void kyLog::Write(LogEntry& entry, bool flushNow)
{
    std::list<LogEntry> batch;
    batch.push_back(std::move(entry));
    writeBatch(batch, flushNow);
}

void kyLog::writeBatch(std::list<LogEntry>& batch, bool flushNow)
{
    if (!mThread)
        return WriteImpl(*mParameters, batch);
    if (mThread->isServing()) {
        if (mThread->isCurrent())
            return mThread->writeOwn(batch);
        if (mThread->push(batch.front(), flushNow)) {
            if (sExiting.load(std::memory_order_relaxed))
                FlushAtExit();
            return;
        }
    }
    const CallersLock lock;
    WriteImpl(*mParameters, batch);
}

void kyLog::ReportFromCrash(std::string_view lines)
{
    if (kyLog* const log = Instance())
        log->writeFromCrash(lines);
}

void kyLog::writeFromCrash(std::string_view lines)
{
    std::list<LogEntry> batch =
        CrashEntries(lines, mEnabled[Debug].load(std::memory_order_relaxed));
    const std::list<LogEntry> copies = batch;
    // First, so that little time is left for others to log after the queue has been written: what
    // they log then dies with the process.
    impl::CrashSystemLog systemLog;
    for (const LogEntry& sent : copies)
        systemLog.send(Critical, impl::LocalOrRaw(impl::SystemLogText(sent)));

    // A log that is stuck is not waited for once more by every part of the same report.
    constexpr unsigned long reportMs = 4000;
    static constinit std::atomic<unsigned long> sStuckSinceMs{0};
    const unsigned long now = kySystemUtils::GetTimeBaseMs();
    const unsigned long stuckSince = sStuckSinceMs.load(std::memory_order_relaxed);
    const bool isStuck = stuckSince != 0 && now - stuckSince < reportMs;
    const bool isHere = !mThread || !mThread->isServing();
    if (isStuck ||
        !(isHere ? writeHereFromCrash(batch) : mThread->writeFromCrash(batch, sPatienceMs))) {
        if (!isStuck)
            sStuckSinceMs.store(kySystemUtils::GetTimeBaseMs(), std::memory_order_relaxed);
        for (const LogEntry& lost : copies) {
            std::string line = impl::LineWithRoom(lost.prefix, lost.message);
            impl::WriteLine(mParameters->echoesToConsole() ? std::cout : std::cerr, line);
        }
    }
}

/// Where the log writes on the caller's thread. False when another thread does so for too long.
bool kyLog::writeHereFromCrash(std::list<LogEntry>& batch)
{
    const impl::Patience patience(sPatienceMs);
    while (!CallersLock::TryTake()) {
        if (patience.isOver())
            return false;
        impl::Nap();
    }
    WriteImpl(*mParameters, batch);
    impl::FinishInterruptedBatch();
    CallersLock::Give();
    return true;
}

void kyLog::FlushAtExit()
{
    sExiting.store(true, std::memory_order_relaxed);
    const kyLog* const log = Instance();
    if (log == nullptr || !log->mThread || !log->mThread->isServing() ||
        sIsStuckAtExit.load(std::memory_order_relaxed))
        return;
    if (!log->mThread->flushWhileItGoesOn(sPatienceMs))
        sIsStuckAtExit.store(true, std::memory_order_relaxed);
}

void impl::SkipFlushAtExit() noexcept
{
    sIsStuckAtExit.store(true, std::memory_order_relaxed);
}

void kyLog::RegisterProcessHooks()
{
    static constinit std::atomic<bool> sRegistered{false};
    if (sRegistered.exchange(true, std::memory_order_relaxed))
        return;
    static_cast<void>(std::atexit(&FlushAtExit));
    static constexpr auto threadOfLog = []() -> kyLogThread* {
        const kyLog* const log = Instance();
        return log != nullptr && log->mThread && log->mThread->isServing() ? log->mThread.get()
                                                                           : nullptr;
    };
    // Under the callers' lock, since threads may fork together where there is no log thread.
    static constinit kyLogThread* sLocked = nullptr;
    // Nobody is in the middle of a change of the queue at the fork. The child takes none of the
    // parent's locks ever again.
    static_cast<void>(::pthread_atfork(
        [] {
            kyLogThread* const thread = threadOfLog();
            if (thread != nullptr)
                thread->lockForFork();
            CallersLock::Take();
            sLocked = thread;
        },
        [] {
            kyLogThread* const thread = sLocked;
            CallersLock::Give();
            if (thread != nullptr)
                thread->unlockAfterFork();
        },
        [] {
            CallersLock::Give();
            // Forked on a thread of the library, the child would keep its signals blocked.
            const sigset_t mask = impl::LaunchSignalMask();
            ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        }));
}

std::string kyLog::GetTime()
{
    return kySystemUtils::GetCurrentTimeAsString(impl::sLogTimeFormat, true);
}

}  // namespace ky

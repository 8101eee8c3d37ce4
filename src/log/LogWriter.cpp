#include "log/LogWriter.h"

#include "ky/kyStringUtils.h"
#include "ky/kySystemUtils.h"

#include "frame/LogLine.h"
#include "frame/ThreadId.h"
#include "log/LogParameters.h"
#include "log/LogTime.h"

#include <atomic>
#include <iostream>
#include <new>
#include <utility>

namespace ky {
namespace {

using Batch = std::list<kyLog::LogEntry>;

// Set while a custom handler runs on this thread: where entries go that it logs itself. Handed
// over at once they would call it again, without end if it answers each batch with a line.
constinit thread_local Batch* tHeldBack = nullptr;
constinit thread_local bool tHandlerRuns = false;

constinit std::atomic<unsigned long> sProgress{0};

void CountProgress()
{
    sProgress.fetch_add(1, std::memory_order_relaxed);
}

class HandlerScope {
public:
    explicit HandlerScope(Batch* heldBack) noexcept
    {
        tHandlerRuns = true;
        tHeldBack = heldBack;
    }
    ~HandlerScope()
    {
        tHandlerRuns = false;
        tHeldBack = nullptr;
    }
    HandlerScope(const HandlerScope&) = delete;
    HandlerScope& operator=(const HandlerScope&) = delete;
};

/// One call of the writer, linked to the one that it interrupts: a notice within a batch, a line
/// that a custom handler logs.
struct Writing {
    Writing(kyLogParameters& p, Batch& b) noexcept;
    ~Writing();
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;

    kyLogParameters& parameters;
    Batch& batch;
    Batch::iterator next;
    bool isHandedOver = false;
    Writing* const outer;
};

constinit thread_local Writing* tWriting = nullptr;

Writing::Writing(kyLogParameters& p, Batch& b) noexcept
    : parameters(p), batch(b), next(b.begin()), outer(tWriting)
{
    tWriting = this;
}

Writing::~Writing()
{
    tWriting = outer;
}

void CallHandler(const kyLogParameters& parameters, Batch& batch, Batch* heldBack)
{
    if (parameters.mHandler == nullptr)
        return;
    const HandlerScope scope(heldBack);
    // A copy, since the handler may remove itself.
    const auto handler = parameters.mHandler;
    handler(batch, parameters.mHandlerData);
}

void HandOver(const kyLogParameters& parameters, Batch& batch)
{
    if (tHandlerRuns) {
        if (tHeldBack != nullptr)
            tHeldBack->splice(tHeldBack->end(), batch);
        return;
    }
    Batch heldBack;
    CallHandler(parameters, batch, &heldBack);
    if (!heldBack.empty())
        CallHandler(parameters, heldBack, nullptr);
}

bool IsFiltered(const kyLogParameters& parameters, const kyLog::LogEntry& entry)
{
    return entry.level == kyLog::Debug && parameters.mDisabledSubTypes.count(entry.subType) != 0;
}

void WriteNotice(kyLogParameters& parameters)
{
    Batch notice(1);
    notice.front().level = kyLog::Debug;
    notice.front().timeMs = static_cast<unsigned long>(kySystemUtils::GetMSecElapsedSinceEpoch());
    notice.front().threadId = impl::CurrentThreadIdText();
    // Emptied before the recursion, which would never end otherwise.
    notice.front().message = std::exchange(parameters.mPendingNotice, std::string());
    kyLog::WriteImpl(parameters, notice);
}

void Echo(const kyLog::LogEntry& entry)
{
    try {
        std::string line = impl::LineWithRoom(entry.prefix, entry.message);
        impl::WriteLine(std::cout, line);
    } catch (const std::bad_alloc&) {
        // One line that did not find the memory for its copy must not cost the others.
        impl::WriteLineInPieces(std::cout, entry.prefix, entry.message);
    }
}

void WriteEntry(kyLogParameters& parameters, kyLog::LogEntry& entry)
{
    const bool filtered = IsFiltered(parameters, entry);
    try {
        // Notices are about the writer's own doing and come before the entry that shows it.
        if (!filtered && !parameters.mPendingNotice.empty())
            WriteNotice(parameters);
        // A filtered entry gets its prefix too: the custom handler sees the whole batch.
        entry.computeLogPrefix(true);
    } catch (const std::bad_alloc&) {
        // The message says more than nothing.
    }
    if (filtered)
        return;
    if (parameters.echoesToConsole())
        Echo(entry);
    if (parameters.mFile)
        parameters.mFile->append(static_cast<long>(entry.timeMs / 1000UL), entry.prefix,
                                 entry.message);
}

void CommitFile(kyLogParameters& parameters)
{
    if (!parameters.mFile)
        return;
    parameters.mFile->commit();
    parameters.mPendingNotice += parameters.mFile->takeNotice();
}

void Finish(Writing& writing)
{
    // The position moves on after the writing, so that a crash in between repeats a line rather
    // than losing it.
    for (; writing.next != writing.batch.end(); ++writing.next) {
        WriteEntry(writing.parameters, *writing.next);
        CountProgress();
    }
    CommitFile(writing.parameters);
    if (!std::exchange(writing.isHandedOver, true))
        HandOver(writing.parameters, writing.batch);
    CountProgress();
}

}  // namespace

constinit thread_local int impl::InsideLog::tDepth = 0;

bool impl::IsHandlerRunning() noexcept
{
    return tHandlerRuns;
}

void impl::WriteWithoutHandler(kyLogParameters& parameters, std::list<kyLog::LogEntry>& batch)
{
    const HandlerScope noHandler(nullptr);
    kyLog::WriteImpl(parameters, batch);
}

unsigned long impl::WriterProgress() noexcept
{
    return sProgress.load(std::memory_order_relaxed);
}

void impl::FinishInterruptedBatch()
{
    for (Writing* writing = tWriting; writing != nullptr; writing = writing->outer)
        Finish(*writing);
}

void kyLog::LogEntry::computeLogPrefix(bool withTime)
{
    prefix.clear();
    std::optional<std::string_view> time;
    if (withTime)
        time = impl::LogTime(static_cast<long>(timeMs / 1000UL));
    impl::AppendLogPrefix(prefix, level, subType, threadId, time);
}

void kyLog::WriteImpl(kyLogParameters& parameters, std::list<LogEntry>& batch)
{
    const impl::InsideLog inside;
    Writing writing(parameters, batch);
    Finish(writing);
}

std::string impl::SystemLogText(const kyLog::LogEntry& entry)
{
    std::string text;
    if (!entry.systemLogName.empty())
        text.append(entry.systemLogName).append(" : ");
    text.append(entry.prefix).append(entry.message);
    CutToSystemLogSize(text);
    return text;
}

std::string impl::LocalOrRaw(const std::string& textUtf8)
{
    // One invalid byte makes the whole conversion empty.
    std::string localText = kyStringUtils::convertCharset(textUtf8, kyStringUtils::CharSetUtf8,
                                                          kyStringUtils::CharSetLocal8Bit);
    return localText.empty() ? textUtf8 : localText;
}

void kyLog::WriteToSystemLog(const LogEntry& entry, bool echoToStderr)
{
    if (entry.level == Debug)
        return;
    std::string text = impl::SystemLogText(entry);
    if (echoToStderr)
        impl::WriteLine(std::cerr, text);
    impl::SendToSystemLog(entry.level, impl::LocalOrRaw(text));
}

}  // namespace ky

#include "log/LogWriter.h"

#include "ky/kyStringUtils.h"
#include "ky/kySystemUtils.h"

#include "frame/LogLine.h"
#include "frame/ThreadId.h"
#include "log/EntryQueue.h"
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
    explicit Writing(kyLogParameters& p) noexcept : parameters(p), outer(tWriting)
    {
        tWriting = this;
    }
    virtual ~Writing() { tWriting = outer; }
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;

    /// Writes what is left, from the beginning or after an interruption.
    virtual void finish() = 0;

    kyLogParameters& parameters;

private:
    friend void impl::FinishInterruptedBatch();

    static constinit thread_local Writing* tWriting;

    Writing* const outer;
};

constinit thread_local Writing* Writing::tWriting = nullptr;

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

bool IsFiltered(const kyLogParameters& parameters, int level, std::string_view subType)
{
    return level == kyLog::Debug && parameters.mDisabledSubTypes.count(subType) != 0;
}

void MakePrefix(std::string& prefix, const impl::EntryView& entry)
{
    prefix.clear();
    impl::AppendLogPrefix(prefix, entry.level, entry.subType, entry.threadId,
                          impl::LogTime(static_cast<long>(entry.timeMs / 1000UL)));
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

void Echo(std::string_view prefix, std::string_view message)
{
    try {
        std::string line = impl::LineWithRoom(prefix, message);
        impl::WriteLine(std::cout, line);
    } catch (const std::bad_alloc&) {
        // One line that did not find the memory for its copy must not cost the others.
        impl::WriteLineInPieces(std::cout, prefix, message);
    }
}

/// Makes the prefix of a filtered entry too: the custom handler sees the whole batch.
void WriteEntry(kyLogParameters& parameters, const impl::EntryView& entry, std::string& prefix)
{
    const bool filtered = IsFiltered(parameters, entry.level, entry.subType);
    try {
        // Notices are about the writer's own doing and come before the entry that shows it.
        if (!filtered && !parameters.mPendingNotice.empty())
            WriteNotice(parameters);
        MakePrefix(prefix, entry);
    } catch (const std::bad_alloc&) {
        // The message says more than nothing.
    }
    if (filtered)
        return;
    if (parameters.echoesToConsole())
        Echo(prefix, entry.message);
    if (parameters.mFile)
        parameters.mFile->append(static_cast<long>(entry.timeMs / 1000UL), prefix, entry.message);
}

void CommitFile(kyLogParameters& parameters)
{
    if (!parameters.mFile)
        return;
    parameters.mFile->commit();
    parameters.mPendingNotice += parameters.mFile->takeNotice();
}

class BatchWriting : public Writing {
public:
    BatchWriting(kyLogParameters& p, Batch& batch) noexcept
        : Writing(p), mBatch(batch), mNext(batch.begin())
    {}

    /// Takes everything out of `queue`, or as much as there is memory for.
    BatchWriting(kyLogParameters& p, Batch& batch, impl::EntryQueue& queue) noexcept
        : Writing(p), mBatch(batch), mQueue(&queue)
    {}

    void finish() override
    {
        if (mQueue != nullptr) {
            try {
                mQueue->moveTo(mBatch);
            } catch (const std::bad_alloc&) {
                // The others come later.
            }
            mQueue = nullptr;
            mNext = mBatch.begin();
        }
        // The position moves on after the writing, so that a crash in between repeats a line
        // rather than losing it.
        for (; mNext != mBatch.end(); ++mNext) {
            WriteEntry(parameters, impl::EntryView(*mNext), mNext->prefix);
            CountProgress();
        }
        CommitFile(parameters);
        if (!std::exchange(mIsHandedOver, true))
            HandOver(parameters, mBatch);
        CountProgress();
    }

private:
    Batch& mBatch;
    impl::EntryQueue* mQueue = nullptr;
    Batch::iterator mNext;
    bool mIsHandedOver = false;
};

/// Without a custom handler nobody needs the entries themselves.
class QueueWriting : public Writing {
public:
    QueueWriting(kyLogParameters& p, impl::EntryQueue& queue) noexcept : Writing(p), mQueue(queue)
    {}

    void finish() override
    {
        for (; !mQueue.empty(); mQueue.pop()) {
            WriteEntry(parameters, mQueue.front(), mPrefix);
            CountProgress();
        }
        CommitFile(parameters);
        CountProgress();
    }

private:
    impl::EntryQueue& mQueue;
    std::string mPrefix;
};

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
    for (Writing* writing = Writing::tWriting; writing != nullptr; writing = writing->outer)
        writing->finish();
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
    BatchWriting(parameters, batch).finish();
}

void impl::WriteQueue(kyLogParameters& parameters, EntryQueue& queue)
{
    const InsideLog inside;
    if (parameters.mHandler == nullptr)
        return QueueWriting(parameters, queue).finish();
    Batch batch;
    BatchWriting(parameters, batch, queue).finish();
    // What did not find the memory for a list still reaches the other sinks.
    if (!queue.empty())
        QueueWriting(parameters, queue).finish();
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

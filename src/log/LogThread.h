#pragma once

#include "ky/kyLog.h"
#include "ky/kyMutex.h"
#include "ky/kyThread.h"

#include "log/EntryQueue.h"
#include "log/Event.h"
#include "log/LogParameters.h"

#include <atomic>
#include <cstdint>
#include <functional>

namespace ky {

/// Writes what producers queue, batch by batch, in the background.
///
/// Every entry gets a ticket, the number of entries queued before it plus one. Whoever waits for
/// an entry waits until its ticket is written, and for no later one.
class kyLogThread : public kyThread {
public:
    explicit kyLogThread(const kyLogParameters& parameters);

    /// Writes what is queued, then ends the thread.
    ~kyLogThread() override;

    /// Queues `entry`, which may be moved from. Waits until it is written when `flushNow` is set or
    /// more than 16 MiB of messages are queued, unless the thread is stopping. False, with the
    /// entry as it was, when the thread has ended.
    bool push(kyLog::LogEntry& entry, bool flushNow);

    /// Waits until everything queued before the call is written. Not on the log thread itself, nor
    /// while it is stopping.
    void flush();

    /// Takes into `parameters` what the writer changed, applies `change` and hands the outcome
    /// over. What is queued already is still written the old way; on return, nothing is any more.
    /// From the log thread itself, that is from a custom handler, the change acts at once. False,
    /// and nothing changed, when the thread has ended.
    bool configure(kyLogParameters& parameters,
                   const std::function<void(kyLogParameters&)>& change);

    /// `configure`, and from then on nothing that is queued is written until `goOn`, so that what
    /// comes between this change and later ones is written under the last of them. Nothing is held
    /// when it returns false.
    bool configureAndHold(kyLogParameters& parameters,
                          const std::function<void(kyLogParameters&)>& change);
    void goOn();

    /// Whether the caller runs on this thread.
    bool isCurrent() const;

    /// Whether fork(2) brought this object into the process: there is no thread behind it, and
    /// whatever another thread held at the fork is held for ever.
    using kyThread::isInherited;

    /// False in a forked child, and for good once the thread has ended, or is about to end the
    /// process: nobody writes for others then, and whoever logs does it himself. Needs no lock.
    bool isServing() const { return !isInherited() && !mEnded.load(std::memory_order_acquire); }

    /// Writes what the log thread itself logs: from a custom handler, as the writer does with
    /// nested entries; otherwise to all sinks but the handler, which would be called without end.
    void writeOwn(std::list<kyLog::LogEntry>& batch);

    /// Waits until everything queued before the call is written, as long as the writer writes at
    /// least something every `patienceMs` milliseconds. Tells whether it is written. On the log
    /// thread itself, which does not come back from there, it writes all that on its own.
    bool flushWhileItGoesOn(unsigned long patienceMs);

    /// For the crash handler: writes the entries of `batch` behind all that is queued, and returns
    /// when they are through the sinks. False after `patienceMs` milliseconds without any
    /// progress, and when the thread has ended. On the log thread itself, and where the crash has
    /// hit this thread inside the log, it writes on the caller's thread, the report first.
    bool writeFromCrash(std::list<kyLog::LogEntry>& batch, unsigned long patienceMs);

    /// Around fork(2): nobody is in the middle of a change of the queue.
    void lockForFork() { mMutex.lock(); }
    void unlockAfterFork() { mMutex.unlock(); }

protected:
    int run() override;

private:
    using Batch = std::list<kyLog::LogEntry>;

    class Ending;

    bool makeChange(kyLogParameters& parameters,
                    const std::function<void(kyLogParameters&)>& change, bool holds);
    bool hasWork() const;
    void adoptShared();
    void waitForWork(kyMutexLocker& lock);
    void writeRound(kyMutexLocker& lock);
    void wake();
    void waitUntil(const std::function<bool()>& done);
    bool lockWithin(unsigned long patienceMs);
    template <typename Condition>
    bool lockWhen(unsigned long patienceMs, Condition condition);
    bool endHere(unsigned long patienceMs);
    void writeRestHere();

    std::atomic<bool> mEnded{false};  // set under mMutex
    kyMutex mMutex;
    impl::Event mWork;
    impl::Event mFlushed;

    // All under mMutex.
    impl::EntryQueue mQueue;
    impl::EntryQueue
        mBeforeChange;  // queued before the change of configuration that the writer has to adopt
    std::size_t mQueuedBytes = 0;
    std::uint64_t mQueuedTicket = 0;
    std::uint64_t mTicketBeforeChange = 0;
    std::uint64_t mWrittenTicket = 0;
    std::uint64_t mConfigured = 0;  // changes made
    std::uint64_t mAdopted = 0;     // changes that the writer works with
    kyLogParameters mShared;
    impl::EntryChunks mSpare;
    unsigned int mWaiters = 0;
    unsigned int mHolds = 0;
    bool mChangedByHandler = false;  // in the round that is being written
    bool mIdle = false;
    bool mFlushRequested = false;
    bool mStopRequested = false;

    // True while the thread writes without the lock, and mWorking is its own. Read by a crash
    // handler that must not share the custom handler with it.
    std::atomic<bool> mIsWriting{false};
    // Set by a crash handler that needs the lock between two rounds.
    std::atomic<bool> mPauseRequested{false};
    kyLogParameters mWorking;
    impl::EntryQueue mInWork;
    impl::EntryChunks mEmptied;
};

}  // namespace ky

#include "log/LogThread.h"

#include "ky/kyException.h"

#include "frame/Guard.h"
#include "log/LogWriter.h"
#include "log/Patience.h"
#include "text/Charset.h"

#include <limits>
#include <utility>

namespace ky {
namespace {

constexpr std::size_t sMaxQueuedBytes = 16777216;
constexpr std::size_t sIdleChunks = 16;

constinit thread_local const kyLogThread* tCurrent = nullptr;

}  // namespace

kyLogThread::kyLogThread(const kyLogParameters& parameters)
    : mShared(parameters), mWorking(parameters)
{
    startLibraryThread("kyLog");
}

kyLogThread::~kyLogThread()
{
    {
        kyMutexLocker lock(mMutex, true);
        mStopRequested = true;
        mFlushRequested = true;
        mWork.wakeAll();
        mFlushed.wakeAll();
    }
    waitThread(std::numeric_limits<int>::max());
    // Producers that waited for the last entries still have to leave.
    for (;; impl::Nap()) {
        const kyMutexLocker lock(mMutex, true);
        if (mWaiters == 0)
            return;
    }
}

bool kyLogThread::isCurrent() const
{
    return tCurrent == this;
}

bool kyLogThread::push(kyLog::LogEntry& entry, bool flushNow)
{
    const impl::InsideLog inside;
    kyMutexLocker lock(mMutex, true);
    if (mEnded)
        return false;
    mQueuedBytes += entry.message.size();
    mQueue.add(entry, mSpare);
    const std::uint64_t ticket = ++mQueuedTicket;
    const bool wait = (flushNow || mQueuedBytes > sMaxQueuedBytes) && !mStopRequested;
    mFlushRequested = mFlushRequested || wait;
    // The thread is woken once, by the first who finds it asleep: waking costs more than the rest.
    wake();
    if (wait)
        waitUntil([&] { return mWrittenTicket >= ticket; });
    return true;
}

void kyLogThread::flush()
{
    if (isCurrent())
        return;
    const impl::InsideLog inside;
    kyMutexLocker lock(mMutex, true);
    if (mStopRequested)
        return;
    const std::uint64_t ticket = mQueuedTicket;
    if (mWrittenTicket >= ticket)
        return;
    mFlushRequested = true;
    wake();
    waitUntil([&] { return mWrittenTicket >= ticket; });
}

bool kyLogThread::configure(kyLogParameters& parameters,
                            const std::function<void(kyLogParameters&)>& change)
{
    return makeChange(parameters, change, false);
}

bool kyLogThread::configureAndHold(kyLogParameters& parameters,
                                   const std::function<void(kyLogParameters&)>& change)
{
    return makeChange(parameters, change, true);
}

void kyLogThread::goOn()
{
    const impl::InsideLog inside;
    const kyMutexLocker lock(mMutex, true);
    --mHolds;
    wake();
}

bool kyLogThread::makeChange(kyLogParameters& parameters,
                             const std::function<void(kyLogParameters&)>& change, bool holds)
{
    const impl::InsideLog inside;
    kyMutexLocker lock(mMutex, true);
    if (!isCurrent())
        waitUntil([&] { return mAdopted == mConfigured; });
    // Whoever writes on his own from then on reads the parameters without this lock.
    if (mEnded)
        return false;
    parameters = mShared;
    change(parameters);
    // While somebody holds the queue, what is in it waits for the last change.
    const bool keepsQueue = mHolds != 0;
    if (holds)
        ++mHolds;
    if (parameters == mShared && !holds) {
        // A handler that has just removed itself may still run.
        if (!isCurrent())
            waitUntil([&] { return !mChangedByHandler; });
        return true;
    }
    mShared = parameters;
    if (isCurrent()) {
        // A custom handler that removes itself must not be called again, not even for what was
        // queued before.
        mChangedByHandler = true;
        adoptShared();
        return true;
    }
    mTicketBeforeChange = keepsQueue ? mWrittenTicket : mQueuedTicket;
    if (!keepsQueue) {
        mBeforeChange.splice(mQueue);
        mQueuedBytes = 0;
    }
    const std::uint64_t made = ++mConfigured;
    mFlushRequested = true;
    wake();
    waitUntil([&] { return mAdopted >= made; });
    return true;
}

/// What the writer has to say about itself stays its own.
void kyLogThread::adoptShared()
{
    std::string notice = std::move(mWorking.mPendingNotice);
    mWorking = mShared;
    mWorking.mPendingNotice.insert(0, notice);
    mShared.mPendingNotice.clear();
}

void kyLogThread::writeOwn(Batch& batch)
{
    if (impl::IsHandlerRunning())
        kyLog::WriteImpl(mWorking, batch);
    else
        impl::WriteWithoutHandler(mWorking, batch);
}

bool kyLogThread::hasWork() const
{
    return (!mQueue.empty() && mHolds == 0) || !mBeforeChange.empty() || mAdopted != mConfigured;
}

void kyLogThread::wake()
{
    if (std::exchange(mIdle, false))
        mWork.wakeAll();
}

void kyLogThread::waitUntil(const std::function<bool()>& done)
{
    ++mWaiters;
    while (!done() && !mEnded)
        mFlushed.wait(mMutex);
    --mWaiters;
}

/// However the thread ends, pthread_exit(3) in a custom handler included, nobody waits for it, and
/// what is queued reaches the sinks but the handler.
class kyLogThread::Ending {
public:
    explicit Ending(kyLogThread& thread) : mThread(thread) {}
    ~Ending()
    {
        if (mThread.isInherited())
            return;
        const kyMutexLocker lock(mThread.mMutex, true);
        // A handler that has ended the thread would do it again, in the middle of unwinding.
        mThread.mWorking.mHandler = nullptr;
        exception::impl::ExecGuardedCode(
            [](void* self) { static_cast<kyLogThread*>(self)->writeRestHere(); }, &mThread);
        mThread.mEnded = true;
        mThread.mIsWriting.store(false, std::memory_order_relaxed);
        mThread.mFlushed.wakeAll();
    }
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;

private:
    kyLogThread& mThread;
};

int kyLogThread::run()
{
    tCurrent = this;
    const Ending ending(*this);
    // Nobody could go on without this thread: a crash on it ends the process.
    const impl::ScopedCrashThrowBan ban;
    kyMutexLocker lock(mMutex, true);
    // A custom handler may fork: then this is the child's only thread, and the lock is the
    // parent's.
    while (!isInherited() && (hasWork() || !mStopRequested)) {
        if (hasWork())
            writeRound(lock);
        else
            waitForWork(lock);
    }
    return 0;
}

void kyLogThread::waitForWork(kyMutexLocker& lock)
{
    while (!hasWork() && !mStopRequested) {
        // A burst that is over does not hold its memory.
        mSpare.trim(sIdleChunks);
        mIdle = true;
        mWork.wait(mMutex);
    }
    mIdle = false;
    if (mFlushRequested)
        return;
    // Somebody has begun to log and nobody waits. A moment later there is a batch to write, and
    // producers were not slowed down by waking a thread for every line.
    constexpr long gatherMicroseconds = 100;
    lock.unlock();
    impl::Nap(gatherMicroseconds);
    lock.lock();
}

void kyLogThread::writeRound(kyMutexLocker& lock)
{
    const bool changing = mAdopted != mConfigured;
    const std::uint64_t changesSeen = mConfigured;
    const std::uint64_t ticket = changing ? mTicketBeforeChange : mQueuedTicket;
    mInWork.swap(changing ? mBeforeChange : mQueue);
    if (!changing)
        mQueuedBytes = 0;
    mIsWriting.store(true, std::memory_order_relaxed);
    lock.unlock();
    if (!mInWork.empty()) {
        const auto write = [](void* self) {
            auto& thread = *static_cast<kyLogThread*>(self);
            impl::WriteQueue(thread.mWorking, thread.mInWork);
        };
        exception::impl::ExecGuardedCode(write, this);
        mInWork.release(mEmptied);
        // Rarely there, and before anybody learns that the batch is written: whoever terminates
        // the library flushes first, and then the converters of other threads are lost.
        impl::CloseConvertersOfThisThread();
    }
    // Before the lock: a crash handler may hold it, above the producer that it has interrupted.
    // Release and acquire, so that who sees this sees the round's end.
    mIsWriting.store(false, std::memory_order_release);
    if (isInherited())
        return;
    lock.lock();
    mSpare.splice(mEmptied);
    mWrittenTicket = ticket;
    mChangedByHandler = false;
    mFlushRequested = mFlushRequested && hasWork();
    if (changing && changesSeen == mConfigured) {
        adoptShared();
        mAdopted = mConfigured;
    }
    if (mWaiters != 0)
        mFlushed.wakeAll();
    while (mPauseRequested.load(std::memory_order_relaxed)) {
        lock.unlock();
        impl::Nap();
        lock.lock();
    }
}

bool kyLogThread::lockWithin(unsigned long patienceMs)
{
    const impl::Patience patience(patienceMs);
    while (!mMutex.tryLock()) {
        if (patience.isOver())
            return false;
        impl::Nap();
    }
    return true;
}

bool kyLogThread::flushWhileItGoesOn(unsigned long patienceMs)
{
    if (isCurrent())
        return endHere(patienceMs);
    if (!lockWithin(patienceMs))
        return false;
    const std::uint64_t ticket = mQueuedTicket;
    mFlushRequested = true;
    wake();
    mMutex.unlock();
    if (!lockWhen(patienceMs, [&] { return mWrittenTicket >= ticket || mEnded; }))
        return false;
    mMutex.unlock();
    return true;
}

/// True with the lock held as soon as `condition` holds under it; false without it after
/// `patienceMs` milliseconds in which the writer has written nothing.
template <typename Condition>
bool kyLogThread::lockWhen(unsigned long patienceMs, Condition condition)
{
    impl::Patience patience(patienceMs);
    unsigned long progress = impl::WriterProgress();
    while (lockWithin(patienceMs)) {
        if (condition())
            return true;
        mMutex.unlock();
        if (std::exchange(progress, impl::WriterProgress()) != progress)
            patience.renew();
        if (patience.isOver())
            return false;
        impl::Nap();
    }
    return false;
}

bool kyLogThread::writeFromCrash(Batch& batch, unsigned long patienceMs)
{
    // The second question for a signal that the thread gets before it has come to run(): it would
    // wait for itself.
    if (isCurrent() || isOwnThread()) {
        kyLog::WriteImpl(mWorking, batch);
        impl::FinishInterruptedBatch();
        impl::WriteQueue(mWorking, mInWork);
        if (lockWithin(patienceMs)) {
            writeRestHere();
            mMutex.unlock();
        }
        return true;
    }
    if (impl::InsideLog::IsActive()) {
        mPauseRequested.store(true, std::memory_order_relaxed);
        const bool isLocked =
            lockWhen(patienceMs, [&] { return !mIsWriting.load(std::memory_order_acquire); });
        if (isLocked) {
            kyLog::WriteImpl(mWorking, batch);
            writeRestHere();
            mMutex.unlock();
        }
        mPauseRequested.store(false, std::memory_order_relaxed);
        return isLocked;
    }
    if (!lockWithin(patienceMs))
        return false;
    if (mEnded) {
        mMutex.unlock();
        return false;
    }
    for (kyLog::LogEntry& entry : batch) {
        mQueuedBytes += entry.message.size();
        mQueue.add(entry, mSpare);
        ++mQueuedTicket;
    }
    mMutex.unlock();
    return flushWhileItGoesOn(patienceMs);
}

/// The thread will not come back to its queue: a custom handler ends the process.
bool kyLogThread::endHere(unsigned long patienceMs)
{
    if (!lockWithin(patienceMs))
        return false;
    writeRestHere();
    mEnded = true;
    mFlushed.wakeAll();
    mMutex.unlock();
    return true;
}

void kyLogThread::writeRestHere()
{
    for (impl::EntryQueue* const queue : {&mBeforeChange, &mQueue})
        impl::WriteQueue(mWorking, *queue);
}

}  // namespace ky

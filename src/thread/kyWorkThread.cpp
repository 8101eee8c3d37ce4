#include "ky/kyWorkThread.h"

#include "frame/ProcessId.h"

#include <climits>
#include <utility>

namespace ky {
namespace {

constexpr unsigned long sNoTimeLimit = ~0UL;

/// In a forked child. What another thread was changing at the fork is in no state to be used, or
/// freed. The mutex tells: nobody is there to release it.
void LeaveBrokenQueue(kyMutex& mutex, std::deque<kyJob*>& queue)
{
    if (mutex.tryLock())
        mutex.unlock();
    else
        (new std::deque<kyJob*>)->swap(queue);
}

}  // namespace

kyJob::~kyJob() = default;

void kyJob::onDelete() {}

kyWorkThread::kyWorkThread() : mProcessId(impl::CachedProcessId()) {}

kyWorkThread::~kyWorkThread()
{
    // Before the mutexes go; the base class would join after that.
    kyWorkThread::stop();
    if (isFromParent())
        LeaveBrokenQueue(mQueueMutex, mQueue);
}

/// Unlike `isInherited` it stays true when a child starts the thread: the mutexes are the parent's
/// and may be held for ever.
bool kyWorkThread::isFromParent() const
{
    return mProcessId != impl::CachedProcessId();
}

void kyWorkThread::beginWake()
{
    if (!isFromParent())
        mQueueMutex.lock();
}

void kyWorkThread::addJob(kyJob* job)
{
    if (!isFromParent())
        mQueue.push_back(job);
}

void kyWorkThread::endWake()
{
    if (isFromParent())
        return;
    mProcessing.lock();
    mProcessing.unlock();
    // A worker that is not idle sleeps no more: whoever ended its idleness wakes it.
    const bool wasIdle = std::exchange(mIsIdle, false);
    mQueueMutex.unlock();
    if (wasIdle)
        mWake.wakeAll();
}

void kyWorkThread::clearJobs()
{
    if (isFromParent())
        LeaveBrokenQueue(mQueueMutex, mQueue);
    while (!mQueue.empty()) {
        // Out first: the job may be gone after the call.
        kyJob* const job = mQueue.front();
        mQueue.pop_front();
        if (job != nullptr)
            job->onDelete();
    }
}

bool kyWorkThread::stop()
{
    if (isFromParent())
        return false;
    // The worker looks at the flag before it waits. To take the queue's mutex here could last for
    // ever: its holder may be in endWake and wait for this job.
    if (isOwnThread()) {
        mShouldStop.store(true, std::memory_order_relaxed);
        return false;
    }
    {
        const kyMutexLocker lock(mQueueMutex);
        mShouldStop.store(true, std::memory_order_relaxed);
        mWake.wakeAll();
    }
    return waitThread(INT_MAX);
}

int kyWorkThread::run()
{
    if (mShouldStop.load(std::memory_order_relaxed))
        return 1;
    kyJob* job = nullptr;
    while (takeJob(job)) {
        const kyMutexLocker processing(mProcessing);
        processJob(job);
    }
    return 0;
}

/// False when the thread has to end.
bool kyWorkThread::takeJob(kyJob*& job)
{
    // A handler may fork: then this is the child's only thread.
    if (isFromParent())
        return false;
    const kyMutexLocker lock(mQueueMutex);
    // Flag and queue are looked at before and after every wait: a stop that came while a job was
    // processed wakes nobody, and a wake-up for nothing (pthread_cond_wait(3p)) ends no bracket.
    while (!mShouldStop.load(std::memory_order_relaxed) && (mIsIdle || mQueue.empty())) {
        mIsIdle = true;
        mWake.wait(&mQueueMutex, sNoTimeLimit);
    }
    if (mShouldStop.load(std::memory_order_relaxed))
        return false;
    job = mQueue.front();
    mQueue.pop_front();
    return true;
}

}  // namespace ky

#pragma once

#include "ky/kyExport.h"
#include "ky/kyMutex.h"
#include "ky/kyThread.h"
#include "ky/kyWaitCondition.h"

#include <atomic>
#include <deque>

namespace ky {

/// Something for a `kyWorkThread` to do. What that is, the thread's handler knows.
class KY_API kyJob {
public:
    kyJob() = default;
    virtual ~kyJob();
    kyJob(const kyJob&) = delete;
    kyJob& operator=(const kyJob&) = delete;

    /// `kyWorkThread::clearJobs` drops the job unprocessed. May delete the job.
    virtual void onDelete();
};

/// A thread that processes jobs one at a time, in the order in which they were added.
///
///     worker.beginWake();
///     for (kyJob* job : batch)
///         worker.addJob(job);
///     worker.endWake();
///
/// Only the end of such a bracket releases the worker, so it sees a batch as a whole. Jobs added
/// before the thread was started wait for the first `endWake` too. Jobs are borrowed: a job that
/// was processed belongs to whoever made it, or to the handler.
///
/// The owner starts the thread with `startThread`. A handler that throws or crashes is reported, as
/// `exception::impl::ExecGuardedCode` tells, and ends the thread; later jobs stay in the queue. A
/// stopped thread cannot be started again.
///
/// In a forked child there is no worker: brackets, `addJob` and `stop` do nothing. What is queued
/// can be cleared there, unless a thread had the queue at the fork: then it is forgotten.
class KY_API kyWorkThread : public kyThread {
public:
    kyWorkThread();

    /// Stops the thread and forgets the jobs in the queue, without `onDelete`. A subclass calls
    /// `stop` in its own destructor already, before its members and its handler go.
    ~kyWorkThread() override;

    /// Opens the bracket: the caller owns the queue, and the worker and other producers wait. A
    /// bracket opened twice by one thread is closed twice.
    void beginWake();

    /// Inside a bracket, or while the thread does not run. `job` is borrowed and reaches the
    /// handler as it is, null too.
    void addJob(kyJob* job);

    /// Waits while the handler is at work, then closes the bracket and wakes the worker. A job that
    /// the worker has taken, but not begun yet, is not waited for: only after `stop` is every job
    /// that left the queue done.
    void endWake();

    /// Calls `onDelete` of every job in the queue but null, in order, and empties it. Inside a
    /// bracket, or while the thread does not run.
    void clearJobs();

    /// Ends the thread after the job in work, whatever is queued, and waits for that. True when it
    /// was joined; false when it was never started or is joined already. Calls that overlap can
    /// both return true. From the handler it returns false without waiting, and the thread ends
    /// after this job. Any thread, but not inside a bracket, which the worker would wait for.
    virtual bool stop();

protected:
    /// 1 when the stop was requested before, otherwise 0 once it is.
    int run() override;

    /// Called on the thread for each job. It may delete the job, not the thread. It must not open a
    /// bracket: another thread may be in `endWake`, where it owns the queue and waits for this very
    /// job.
    virtual void processJob(kyJob* job) = 0;

private:
    bool isFromParent() const;
    bool takeJob(kyJob*& job);

    kyWaitCondition mWake;
    kyMutex mQueueMutex;
    kyMutex mProcessing;                   // held while a job is processed
    std::atomic<bool> mShouldStop{false};  // written under mQueueMutex or by the worker
    bool mIsIdle = true;                   // the worker takes nothing; under mQueueMutex
    std::deque<kyJob*> mQueue;             // under mQueueMutex
    const unsigned long mProcessId;
};

}  // namespace ky

#include "ky/ConcurrentPool.h"

#include "ky/kyException.h"
#include "ky/kyThread.h"

#include "frame/CancelBan.h"
#include "frame/ProcessId.h"
#include "thread/LockDepth.h"
#include "thread/ProcessPool.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <iterator>
#include <string>
#include <utility>

namespace ky {
namespace {

constexpr unsigned long sNoTimeLimit = ~0UL;

constinit thread_local const ConcurrentPool* tPoolOfWorker = nullptr;

constinit std::atomic<ConcurrentPool*> sProcessPool{nullptr};

void RunGuarded(ConcurrentPool::SolverBase& solver, kyMutex& mutex, kyWaitCondition& condition)
{
    struct Call {
        ConcurrentPool::SolverBase& solver;
        kyMutex& mutex;
        kyWaitCondition& condition;
    } call = {solver, mutex, condition};
    const auto solve = [](void* argument) {
        const Call& given = *static_cast<Call*>(argument);
        given.solver.solve(given.mutex, given.condition);
    };
    exception::impl::ExecGuardedCode(solve, &call);
}

}  // namespace

/// One call of `ConcurrentPool::solve`, on the stack of its caller. The count of its own keeps
/// calls that overlap from waiting for each other.
struct __attribute__((visibility("hidden"))) ConcurrentPool::HandOut {
    const std::vector<SolverBase*>& solvers;  // without nulls
    std::size_t next = 0;
    std::size_t unfinished = solvers.size();
};

class __attribute__((visibility("hidden"))) ConcurrentPool::Worker final : public kyThread {
public:
    explicit Worker(ConcurrentPool& pool) : mPool(pool)
    {
        startLibraryThread(("kyPool/" + std::to_string(pool.mWorkers.size())).c_str());
    }
    ~Worker() override { waitThread(INT_MAX); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // All under the pool's mutex.
    SolverBase* mSolver = nullptr;
    HandOut* mHandOut = nullptr;  // where the solver comes from
    bool mIsActive = true;

protected:
    int run() override
    {
        tPoolOfWorker = &mPool;
        mPool.mMutex.lock();
        while (mIsActive) {
            if (mSolver == nullptr)
                mPool.assignNext(*this);
            if (mSolver == nullptr) {
                mPool.mWork.wait(&mPool.mMutex, sNoTimeLimit);
                continue;
            }
            RunGuarded(*mSolver, mPool.mMutex, mPool.mSolverCondition);
            // A solver may fork: then this is the child's only thread, and the mutex is the
            // parent's.
            if (isInherited())
                return 0;
            // It may have thrown without the mutex, or with more than it was given.
            impl::SetLockDepth(mPool.mMutex, 1);
            mPool.finish(*this);
        }
        mPool.mMutex.unlock();
        return 0;
    }

private:
    ConcurrentPool& mPool;
};

ConcurrentPool::ConcurrentPool(unsigned int workerCount)
    : mWorkerCount(std::max(workerCount, 1U)), mProcessId(impl::CachedProcessId())
{
    if (workerCount < 2)
        return;
    // Room first: a thread that has no place would be waited for and never told to end.
    mWorkers.reserve(workerCount);
    try {
        while (mWorkers.size() < workerCount)
            mWorkers.push_back(std::make_unique<Worker>(*this));
    } catch (...) {
        endWorkers();
        throw;
    }
}

ConcurrentPool::~ConcurrentPool()
{
    // In a forked child the threads do not exist, and nobody may be there to release the mutex.
    if (!isFromParent())
        endWorkers();
}

void ConcurrentPool::endWorkers()
{
    {
        const kyMutexLocker lock(mMutex);
        while (mCallers != 0)
            mAllDone.wait(&mMutex, sNoTimeLimit);
        for (const std::unique_ptr<Worker>& worker : mWorkers)
            worker->mIsActive = false;
        mWork.wakeAll();
    }
    mWorkers.clear();
}

unsigned int ConcurrentPool::getWorkerCount() const
{
    return mWorkerCount;
}

bool ConcurrentPool::isFromParent() const
{
    return mProcessId != impl::CachedProcessId();
}

void ConcurrentPool::solve(const std::vector<SolverBase*>& solvers)
{
    std::vector<SolverBase*> all(solvers);
    all.erase(std::remove(all.begin(), all.end(), nullptr), all.end());
    if (all.empty())
        return;
    // Cancelled, a waiting thread would take the stack away from under the workers, and one that
    // runs the solvers itself would leave the mutex held and the call on its way for ever.
    const impl::CancelBan ban;
    if (isFromParent()) {
        RunInChild(all.begin(), all.end());
    } else if (mWorkerCount < 2 || tPoolOfWorker == this) {
        // A worker that waited for the others would hold the mutex twice, and release it never.
        runHere(all);
    } else {
        handOut(all);
    }
}

void ConcurrentPool::runHere(const std::vector<SolverBase*>& solvers)
{
    const unsigned int depthOfCaller = impl::LockDepth(mMutex);
    impl::SetLockDepth(mMutex, 1);
    ++mCallers;
    for (auto solver = solvers.begin(); solver != solvers.end(); ++solver) {
        RunGuarded(**solver, mMutex, mSolverCondition);
        // It may have forked: in the child the mutex is the parent's, and so is the count.
        if (isFromParent())
            return RunInChild(std::next(solver), solvers.end());
        impl::SetLockDepth(mMutex, 1);
    }
    leave();
    impl::SetLockDepth(mMutex, depthOfCaller);
}

/// With a mutex of its own: who held the pool's at the fork is not here to release it.
void ConcurrentPool::RunInChild(SolverIterator begin, SolverIterator end)
{
    const unsigned long processId = impl::CachedProcessId();
    kyMutex mutex;
    kyWaitCondition condition;
    for (SolverIterator solver = begin; solver != end; ++solver) {
        impl::SetLockDepth(mutex, 1);
        RunGuarded(**solver, mutex, condition);
        if (processId != impl::CachedProcessId())
            return RunInChild(std::next(solver), end);
    }
    impl::SetLockDepth(mutex, 0);
}

void ConcurrentPool::handOut(const std::vector<SolverBase*>& solvers)
{
    HandOut handOut{solvers};
    const kyMutexLocker lock(mMutex);
    mOpen.push_back(&handOut);
    ++mCallers;
    // Who wakes takes the next solver itself, as those do that are awake: to assign it here would
    // mean to wake all, for the condition cannot tell one sleeper from another.
    const std::size_t idle = mWorkers.size() - mPending;
    for (std::size_t i = 0; i < std::min(idle, solvers.size()); ++i)
        mWork.wakeOne();
    while (handOut.unfinished != 0)
        mAllDone.wait(&mMutex, sNoTimeLimit);
    leave();
}

/// The destructor waits for the last caller.
void ConcurrentPool::leave()
{
    --mCallers;
    if (mCallers == 0)
        mAllDone.wakeAll();
}

void ConcurrentPool::assignNext(Worker& worker)
{
    if (mOpen.empty())
        return;
    HandOut& handOut = *mOpen.front();
    worker.mSolver = handOut.solvers[handOut.next++];
    worker.mHandOut = &handOut;
    ++mPending;
    if (handOut.next == handOut.solvers.size())
        mOpen.pop_front();
}

/// The worker goes on with the next solver at once, so `mPending` is 0 only when none is left.
void ConcurrentPool::finish(Worker& worker)
{
    HandOut& handOut = *worker.mHandOut;
    worker.mSolver = nullptr;
    worker.mHandOut = nullptr;
    assignNext(worker);
    --mPending;
    --handOut.unfinished;
    // Whenever the last pending one is done its hand-out is, but under load not the other way.
    if (handOut.unfinished == 0)
        mAllDone.wakeAll();
}

ConcurrentPool::SolverBase::SubObject::~SubObject() = default;

ConcurrentPool::SolverBase::SolverBase() = default;

ConcurrentPool::SolverBase::~SolverBase() = default;

void ConcurrentPool::SolverBase::addSubObject(std::unique_ptr<SubObject> object)
{
    if (object)
        mSubObjects.push_back(std::move(object));
}

ConcurrentPool::ProgressNotifierProxy::ProgressNotifierProxy(kyProgressNotifierInterface& target)
    : mTarget(target)
{}

ConcurrentPool::ProgressNotifierProxy::~ProgressNotifierProxy() = default;

void ConcurrentPool::ProgressNotifierProxy::updateProxy()
{
    mTarget.setCurrentStepProgress(static_cast<double>(getGlobalProgress()));
    if (mTarget.shouldCancel() && !shouldCancel())
        cancel();
}

ConcurrentPool* concurrent::GetConcurrentPool()
{
    // Acquire: pairs with CreateProcessPool.
    return sProcessPool.load(std::memory_order_acquire);
}

void impl::CreateProcessPool(unsigned int workerCount)
{
    if (sProcessPool.load(std::memory_order_relaxed) == nullptr)
        sProcessPool.store(new ConcurrentPool(workerCount), std::memory_order_release);
}

void impl::DestroyProcessPool()
{
    const std::unique_ptr<ConcurrentPool> last(
        sProcessPool.exchange(nullptr, std::memory_order_acq_rel));
}

}  // namespace ky

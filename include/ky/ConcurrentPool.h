#pragma once

#include "ky/kyExport.h"
#include "ky/kyMutex.h"
#include "ky/kyProgressNotifier.h"
#include "ky/kyWaitCondition.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

namespace ky {

/// A fixed set of threads that a computation is spread over, cut into solvers.
///
/// A pool for fewer than two workers has no threads and works on the caller's. Neither has an
/// inherited pool in a forked child, which may be used and destroyed there: each call of `solve`
/// has a mutex of its own then. The threads are named "kyPool/0" and so on and block asynchronous
/// signals.
class KY_API ConcurrentPool {
public:
    class SolverBase;
    class ProgressNotifierProxy;

    /// Starts the threads. 0 counts as 1. Throws what the standard library throws when the system
    /// refuses one; no thread is left then.
    explicit ConcurrentPool(unsigned int workerCount);

    /// Waits until the calls of `solve` that are on their way have returned and all threads have
    /// ended. Not from a solver of this pool.
    ~ConcurrentPool();
    ConcurrentPool(const ConcurrentPool&) = delete;
    ConcurrentPool& operator=(const ConcurrentPool&) = delete;

    /// As given to the constructor, but at least 1.
    unsigned int getWorkerCount() const;

    /// Runs every solver once and returns when all are done. They are handed out in the order of
    /// the list, each to a worker that is idle, so several may begin in any order; nulls are
    /// skipped. A solver that throws or crashes is reported as `exception::impl::ExecGuardedCode`
    /// tells, and counts as done. The solvers are borrowed; what they wrote is seen by the caller.
    ///
    /// Any number of threads may call it at once: who comes first is served first. Called by a
    /// solver of this pool it runs the solvers on the spot, one after the other. A solver must not
    /// wait for another thread that hands out to the same pool. A caller that is cancelled
    /// (pthreads(7)) meanwhile goes on to the return.
    void solve(const std::vector<SolverBase*>& solvers);

private:
    class Worker;
    struct HandOut;
    using SolverIterator = std::vector<SolverBase*>::const_iterator;

    bool isFromParent() const;
    void endWorkers();
    void handOut(const std::vector<SolverBase*>& solvers);
    void assignNext(Worker& worker);
    void finish(Worker& worker);
    void runHere(const std::vector<SolverBase*>& solvers);
    static void RunInChild(SolverIterator begin, SolverIterator end);
    void leave();

    // All that changes is under mMutex.
    std::vector<std::unique_ptr<Worker>> mWorkers;
    kyMutex mMutex;
    kyWaitCondition mSolverCondition;  // for the solvers among themselves
    kyWaitCondition mWork;
    kyWaitCondition mAllDone;
    std::uint32_t mPending = 0;  // solvers assigned and not finished
    const std::uint32_t mWorkerCount;
    [[maybe_unused]] const std::uint32_t mSpare = 0;
    std::list<HandOut*> mOpen;  // with solvers that no worker has yet
    std::size_t mCallers = 0;   // calls of `solve` that are on their way
    const unsigned long mProcessId;
};

/// A piece of work.
class KY_API ConcurrentPool::SolverBase {
public:
    /// Something that lives as long as the solver.
    class KY_API SubObject {
    public:
        SubObject() = default;
        virtual ~SubObject();
        SubObject(const SubObject&) = delete;
        SubObject& operator=(const SubObject&) = delete;
    };

    SolverBase();
    virtual ~SolverBase();
    SolverBase(const SolverBase&) = delete;
    SolverBase& operator=(const SolverBase&) = delete;

    /// Does the work. The calling thread holds `poolMutex` once and holds it once again on return;
    /// as long as it does, no other solver of the pool can begin or end. So a solver releases it
    /// around its own work,
    ///
    ///     poolMutex.unlock();
    ///     const long sum = addUp();
    ///     poolMutex.lock();
    ///     mTotal += sum;  // shared by the solvers of the pool
    ///
    /// and uses what the solvers share while it holds the mutex. `poolCondition` goes with the
    /// mutex, for solvers that wait for each other; as many as wait together need a worker each.
    /// To return with the mutex released, or held more often, is a misuse that the pool corrects.
    /// A solver must not end its thread (pthread_exit(3p)): nobody would count it as done. One that
    /// forks can return in the child, but not use the pool's mutex there, which is the parent's.
    virtual void solve(kyMutex& poolMutex, kyWaitCondition& poolCondition) = 0;

    /// Null is ignored. The objects go in the order in which they came.
    void addSubObject(std::unique_ptr<SubObject> object);

private:
    std::list<std::unique_ptr<SubObject>> mSubObjects;
};

/// What solvers report into when the progress of the whole belongs to one step of a notifier that
/// is not made for threads. Any thread may cancel and ask; reporting and `updateProxy` are for one
/// thread at a time, so solvers do both while they hold the pool's mutex.
class KY_API ConcurrentPool::ProgressNotifierProxy : public kyProgressNotifierBase {
public:
    /// Borrows `target`.
    explicit ProgressNotifierProxy(kyProgressNotifierInterface& target);
    ~ProgressNotifierProxy() override;

    /// Gives the progress of the proxy, from 0 to 1, to the current step of the target, whose
    /// maximum should be 1; then takes over the target's wish to cancel.
    void updateProxy();

private:
    kyProgressNotifierInterface& mTarget;
};

namespace concurrent {

/// The process-wide pool, with `kySystemUtils::GetIdealThreadCount()` workers; null unless the
/// library is up at the full level. Any thread.
KY_API ConcurrentPool* GetConcurrentPool();

}  // namespace concurrent
}  // namespace ky

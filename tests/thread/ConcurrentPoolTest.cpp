#include "ky/ConcurrentPool.h"

#include "support/Library.h"
#include "thread/LockDepth.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <vector>

#include <unistd.h>

using ky::ConcurrentPool;
using ky::kyMutex;
using ky::kyWaitCondition;

namespace {

struct Pool : ky::test::FullLibrary {
    Pool() { ky::kyLog::Instance()->setEchoToConsole(false); }
};

struct Solver : ConcurrentPool::SolverBase {
    using Work = std::function<void(kyMutex&, kyWaitCondition&)>;
    explicit Solver(Work work) : mWork(std::move(work)) {}
    void solve(kyMutex& mutex, kyWaitCondition& condition) override
    {
        EXPECT_EQ(ky::impl::LockDepth(mutex), 1u);
        mWork(mutex, condition);
    }
    const Work mWork;
};

/// Runs `work` on the pool as `count` solvers.
void Solve(ConcurrentPool& pool, std::size_t count, const Solver::Work& work)
{
    Solver solver(work);
    pool.solve(std::vector<ConcurrentPool::SolverBase*>(count, &solver));
}

}  // namespace

TEST_F(Pool, RunsEverySolverOfManyThreadsAndOfSolversWhateverTheyLeaveBehind)
{
    for (const unsigned int workers : {0U, 1U, 2U, 5U}) {
        SCOPED_TRACE(workers);
        ConcurrentPool pool(workers);
        int done = 0;
        const auto count = [&](kyMutex&, kyWaitCondition&) { ++done; };
        const auto nest = [&](kyMutex& mutex, kyWaitCondition&) {
            Solve(pool, 1, count);
            const int number = done++;
            mutex.unlock();
            Solve(pool, 2, count);
            EXPECT_EQ(ky::impl::LockDepth(mutex), 0u);
            for (int locks = number % 3; locks > 0; --locks)
                mutex.lock();
            if (number % 2 == 0)
                throw number;
        };
        std::vector<std::jthread> callers(4);
        for (std::jthread& caller : callers)
            caller = std::jthread([&] {
                for (int round = 0; round < 20; ++round)
                    Solve(pool, 5, nest);
            });
        callers.clear();
        pool.solve({nullptr});
        EXPECT_EQ(done, 4 * 20 * 5 * 4);

        // As many as there are workers wait for each other.
        unsigned int arrived = 0;
        Solve(pool, pool.getWorkerCount(), [&](kyMutex& mutex, kyWaitCondition& condition) {
            ++arrived;
            condition.wakeAll();
            while (arrived < std::max(workers, 1U))
                condition.wait(&mutex, ~0UL);
        });
    }
}

TEST_F(Pool, IsDestroyedAtOnceOrAfterTheHandOutsInProgress)
{
    for (int i = 0; i < 500; ++i)
        const ConcurrentPool pool(2);
    for (const unsigned int workers : {1U, 2U}) {
        auto pool = std::make_unique<ConcurrentPool>(workers);
        std::promise<void> begun, opened;
        std::atomic<bool> isGone = false;
        const std::jthread caller([&] {
            Solve(*pool, 1, [&](kyMutex& mutex, kyWaitCondition&) {
                mutex.unlock();
                begun.set_value();
                opened.get_future().wait();
                EXPECT_FALSE(isGone);
                mutex.lock();
            });
        });
        begun.get_future().wait();
        auto destroyer = ky::test::StartUntilAsleep([&] {
            pool.reset();
            isGone = true;
        });
        opened.set_value();
        destroyer.join();
    }
}

TEST_F(Pool, KeepsACancelledCallerUntilItsSolversAreDone)
{
    for (const unsigned int workers : {1U, 2U}) {
        SCOPED_TRACE(workers);
        ConcurrentPool pool(workers);
        std::promise<void> opened;
        const std::shared_future<void> isOpen = opened.get_future().share();
        int done = 0;
        std::thread caller = ky::test::StartUntilAsleep([&] {
            Solve(pool, 20, [&](kyMutex& mutex, kyWaitCondition&) {
                mutex.unlock();
                isOpen.wait();
                ::pthread_testcancel();
                mutex.lock();
                ++done;
            });
            ::pthread_testcancel();
            ADD_FAILURE() << "the request was lost";
        });
        ::pthread_cancel(caller.native_handle());
        opened.set_value();
        caller.join();
        EXPECT_EQ(done, 20);
    }
}

TEST_F(Pool, WorksOnOneThreadInTheChildOfASolverThatForks)
{
#if !defined(__SANITIZE_THREAD__)  // which does not see a thread end in a child
    ConcurrentPool ending(2);
    Solve(ending, 1, [](kyMutex&, kyWaitCondition&) {
        ky::test::WaitUntilOthersAreAsleep();
        const pid_t child = ::fork();
        if (child != 0) {
            EXPECT_EQ(ky::test::EndOf(child), 0) << "the worker, its only thread, goes on";
            return;
        }
        ::alarm(60);
        std::atexit([] { ::_exit(0); });
    });
#endif
    const pid_t self = ::getpid();
    for (const unsigned int workers : {1U, 2U}) {
        SCOPED_TRACE(workers);
        ConcurrentPool pool(workers);
        int done = 0;
        // The second one forks in the child of the first, too. Both children return.
        Solver solver([&](kyMutex&, kyWaitCondition&) {
            if (++done > 2)
                return;
            ky::test::WaitUntilOthersAreAsleep();
            const pid_t child = ::fork();
            if (child == 0)
                ::alarm(60);
            else
                EXPECT_EQ(ky::test::EndOf(child), 44);
        });
        const std::vector<ConcurrentPool::SolverBase*> solvers(4, &solver);
        // On a worker its own call of `solve` runs them.
        Solve(pool, 1, [&](kyMutex&, kyWaitCondition&) {
            pool.solve(solvers);
            if (::getpid() == self)
                return;
            for (ConcurrentPool* const each : {&pool, ky::concurrent::GetConcurrentPool()})
                Solve(*each, 3, [&](kyMutex&, kyWaitCondition&) { ++done; });
            ky::terminateKySystem();
            pool.~ConcurrentPool();
            ::_exit(!HasFailure() && done == 10 ? 44 : 1);
        });
        EXPECT_EQ(done, 4);
    }
}

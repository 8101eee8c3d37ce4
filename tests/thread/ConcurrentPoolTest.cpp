#include "ky/ConcurrentPool.h"
#include "ky/kySystemUtils.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"
#include "thread/LockDepth.h"

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

using ky::ConcurrentPool;
using ky::kyMutex;
using ky::kyWaitCondition;

namespace {

struct Pool : ky::test::FullLibrary {};

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

TEST_F(Pool, RunsEverySolverOnceWhateverItsSize)
{
    for (const unsigned int workers : {0U, 1U, 2U, 5U}) {
        SCOPED_TRACE(workers);
        ConcurrentPool pool(workers);
        EXPECT_EQ(pool.getWorkerCount(), workers == 0 ? 1 : workers);
        pool.solve({});
        pool.solve({nullptr});
        int began = 0;
        std::atomic<int> done = 0;
        std::set<std::string> names;
        Solver solver([&](kyMutex& mutex, kyWaitCondition&) {
            char name[16];
            ::pthread_getname_np(::pthread_self(), name, sizeof name);
            sigset_t mask;
            ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            EXPECT_EQ(::sigismember(&mask, SIGTERM), workers < 2 ? 0 : 1);
            EXPECT_EQ(::sigismember(&mask, SIGSEGV), 0);
            names.insert(name);
            ++began;  // under the mutex
            mutex.unlock();
            ++done;
            mutex.lock();
        });
        std::vector<ConcurrentPool::SolverBase*> solvers(1000, &solver);
        solvers.insert(solvers.begin() + 3, nullptr);
        pool.solve(solvers);
        EXPECT_EQ(began, 1000);
        EXPECT_EQ(done, 1000);
        for (const std::string& name : names)
            EXPECT_EQ(name.substr(0, 7) == "kyPool/", workers > 1) << name;
    }
}

TEST_F(Pool, RunsAsManySolversAtOnceAsItHasWorkers)
{
    ConcurrentPool pool(3);
    int arrived = 0;
    Solve(pool, 3, [&](kyMutex& mutex, kyWaitCondition& condition) {
        ++arrived;
        condition.wakeAll();
        while (arrived < 3)
            condition.wait(&mutex, ~0UL);
    });
    EXPECT_EQ(arrived, 3);
}

TEST_F(Pool, GoesOnAfterSolversThatThrowOrLeaveTheMutexWrong)
{
    const Solver::Work works[] = {
        [](kyMutex&, kyWaitCondition&) { throw std::runtime_error("with the mutex"); },
        [](kyMutex& mutex, kyWaitCondition&) {
            mutex.unlock();
            throw 1;
        },
        [](kyMutex& mutex, kyWaitCondition&) {
            mutex.lock();
            throw 2;
        },
        [](kyMutex& mutex, kyWaitCondition&) { mutex.unlock(); },
        [](kyMutex& mutex, kyWaitCondition&) { mutex.lock(); },
    };
    ky::kyLog::Instance()->setEchoToConsole(false);
    for (const unsigned int workers : {1U, 2U}) {
        ConcurrentPool pool(workers);
        for (const Solver::Work& work : works) {
            int done = 0;
            Solve(pool, 20, work);
            Solve(pool, 20, [&](kyMutex&, kyWaitCondition&) { ++done; });
            EXPECT_EQ(done, 20);
        }
    }
}

TEST_F(Pool, ServesHandOutsFromManyThreadsAndFromItsSolvers)
{
    ConcurrentPool pool(2);
    std::atomic<int> done = 0;
    const Solver::Work work = [&](kyMutex& mutex, kyWaitCondition&) {
        mutex.unlock();
        Solve(pool, 2, [&](kyMutex& inner, kyWaitCondition&) {
            inner.unlock();
            ++done;
            inner.lock();
        });
        EXPECT_EQ(ky::impl::LockDepth(mutex), 0u);
        mutex.lock();
        Solve(pool, 1, [&](kyMutex&, kyWaitCondition&) { ++done; });
    };
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([&] {
            for (int round = 0; round < 50; ++round)
                Solve(pool, 5, work);
        });
    }
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(done, 4 * 50 * 5 * 3);
}

TEST_F(Pool, IsDestroyedAtOnceOrAfterTheHandOutsInProgress)
{
    for (int i = 0; i < 500; ++i)
        const ConcurrentPool pool(2);

    for (const unsigned int workers : {1U, 2U}) {
        SCOPED_TRACE(workers);
        auto pool = std::make_unique<ConcurrentPool>(workers);
        std::promise<void> begun;
        std::promise<void> opened;
        std::atomic<int> done = 0;
        std::atomic<bool> isDestroyed = false;
        std::thread caller([&] {
            Solve(*pool, 1, [&](kyMutex& mutex, kyWaitCondition&) {
                mutex.unlock();
                begun.set_value();
                opened.get_future().wait();
                mutex.lock();
                ++done;
            });
            ++done;
        });
        begun.get_future().wait();
        auto destroyer = ky::test::StartUntilAsleep([&] {
            pool.reset();
            isDestroyed = true;
        });
        EXPECT_FALSE(isDestroyed);
        opened.set_value();
        destroyer.join();
        caller.join();
        EXPECT_EQ(done, 2);
    }
}

TEST_F(Pool, GoesOnInTheChildOfASolverThatForks)
{
    ky::kyLog::Instance()->setEchoToConsole(false);
    const pid_t self = ::getpid();
    for (const unsigned int workers : {1U, 2U}) {
        SCOPED_TRACE(workers);
        ConcurrentPool pool(workers);
        int done = 0;
        bool isWell = true;
        // The second one forks in the child of the first, too.
        Solver solver([&](kyMutex&, kyWaitCondition&) {
            if (++done > 2)
                return;
            const pid_t child = ::fork();
            if (child == 0) {
                ::alarm(60);
                return;
            }
            int status = -1;
            ::waitpid(child, &status, 0);
            isWell = isWell && WIFEXITED(status) && WEXITSTATUS(status) == 44;
        });
        const std::vector<ConcurrentPool::SolverBase*> solvers(4, &solver);
        // On a worker its own call of `solve` runs them.
        Solve(pool, 1, [&](kyMutex&, kyWaitCondition&) {
            pool.solve(solvers);
            if (::getpid() != self)
                ::_exit(isWell && done == 4 ? 44 : 1);
        });
        EXPECT_TRUE(isWell);
        EXPECT_EQ(done, 4);
    }
}

TEST_F(Pool, WorksOnTheCallersThreadInAForkedChild)
{
    ConcurrentPool pool(2);
    ConcurrentPool& ours = *ky::concurrent::GetConcurrentPool();
    const auto child = [&] {
        ::alarm(60);
        int done = 0;
        for (ConcurrentPool* const each : {&pool, &ours})
            Solve(*each, 3, [&](kyMutex&, kyWaitCondition&) { ++done; });
        EXPECT_EQ(done, 6);
        ky::terminateKySystem();
        EXPECT_EQ(ky::concurrent::GetConcurrentPool(), nullptr);
        pool.~ConcurrentPool();
    };
    // Forked on a worker whose solver holds the mutex, and on another thread meanwhile.
    std::promise<void> held;
    std::promise<void> opened;
    Solver solver([&](kyMutex&, kyWaitCondition&) {
        const auto result = ky::test::RunInChild(child);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        held.set_value();
        opened.get_future().wait();
    });
    std::thread caller([&] { pool.solve({&solver}); });
    held.get_future().wait();
    const auto result = ky::test::RunInChild(child);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    opened.set_value();
    caller.join();
}

TEST_F(Pool, IsProcessWideAtTheFullLevelAlone)
{
    ASSERT_NE(ky::concurrent::GetConcurrentPool(), nullptr);
    EXPECT_EQ(ky::concurrent::GetConcurrentPool()->getWorkerCount(),
              ky::kySystemUtils::GetIdealThreadCount());
    ky::terminateKySystem();
    EXPECT_EQ(ky::concurrent::GetConcurrentPool(), nullptr);
    ky::initializeKySystem(ky::InitType::Light, false);
    EXPECT_EQ(ky::concurrent::GetConcurrentPool(), nullptr);
    ky::initializeKySystem(ky::InitType::Full, false);
    EXPECT_NE(ky::concurrent::GetConcurrentPool(), nullptr);
    ky::terminateKySystem();
}

TEST(PoolProxy, GivesItsProgressToTheTargetAndTakesItsCancellation)
{
    ky::kyProgressNotifierBase target;
    target.beginStepGroupWeights({1.0, 3.0});
    target.changeCurrentStep(1.0, 1);
    ConcurrentPool::ProgressNotifierProxy proxy(target);
    proxy.setCurrentStepMaxProgress(10.0);
    proxy.setCurrentStepProgress(5.0);
    proxy.updateProxy();
    EXPECT_FLOAT_EQ(target.getGlobalProgress(), 0.25f + 0.75f * 0.5f);
    EXPECT_FALSE(proxy.shouldCancel());
    target.cancel();
    EXPECT_FALSE(proxy.shouldCancel());
    proxy.updateProxy();
    EXPECT_TRUE(proxy.shouldCancel());
}

TEST(PoolSolver, DestroysItsSubObjectsInOrder)
{
    struct Sub : ConcurrentPool::SolverBase::SubObject {
        Sub(int number, std::vector<int>& gone) : mNumber(number), mGone(gone) {}
        ~Sub() override { mGone.push_back(mNumber); }
        const int mNumber;
        std::vector<int>& mGone;
    };
    std::vector<int> gone;
    {
        Solver solver(nullptr);
        solver.addSubObject(std::make_unique<Sub>(1, gone));
        solver.addSubObject(nullptr);
        solver.addSubObject(std::make_unique<Sub>(2, gone));
    }
    EXPECT_EQ(gone, (std::vector<int>{1, 2}));
}

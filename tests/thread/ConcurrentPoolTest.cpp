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

TEST_F(Pool, RunsEverySolverOnceAndAsManyAsItHasWorkersTogether)
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

        // As many as there are workers wait for each other.
        unsigned int arrived = 0;
        Solve(pool, pool.getWorkerCount(), [&](kyMutex& mutex, kyWaitCondition& condition) {
            ++arrived;
            condition.wakeAll();
            while (arrived < pool.getWorkerCount())
                condition.wait(&mutex, ~0UL);
        });
    }
}

TEST_F(Pool, GoesOnAfterSolversThatThrowOrLeaveTheMutexWrong)
{
    ky::kyLog::Instance()->setEchoToConsole(false);
    for (const unsigned int workers : {1U, 2U}) {
        ConcurrentPool pool(workers);
        int done = 0;
        Solve(pool, 60, [&](kyMutex& mutex, kyWaitCondition&) {
            const int number = done++;
            if (number % 3 == 0)
                mutex.unlock();
            if (number % 3 == 1)
                mutex.lock();
            if (number % 2 == 0)
                throw number;
        });
        EXPECT_EQ(done, 60);
    }
}

TEST_F(Pool, ServesHandOutsFromManyThreadsAndFromItsSolvers)
{
    ConcurrentPool pool(2);
    int done = 0;
    const auto count = [&](kyMutex&, kyWaitCondition&) { ++done; };
    const auto nest = [&](kyMutex& mutex, kyWaitCondition&) {
        mutex.unlock();
        Solve(pool, 2, count);
        EXPECT_EQ(ky::impl::LockDepth(mutex), 0u);
        mutex.lock();
        Solve(pool, 1, count);
    };
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([&] {
            for (int round = 0; round < 50; ++round)
                Solve(pool, 5, nest);
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
        auto pool = std::make_unique<ConcurrentPool>(workers);
        std::promise<void> begun;
        std::promise<void> opened;
        std::atomic<int> done = 0;
        std::thread caller([&] {
            Solve(*pool, 1, [&](kyMutex& mutex, kyWaitCondition&) {
                mutex.unlock();
                begun.set_value();
                opened.get_future().wait();
                mutex.lock();
            });
            ++done;
        });
        begun.get_future().wait();
        auto destroyer = ky::test::StartUntilAsleep([&] {
            pool.reset();
            ++done;
        });
        EXPECT_EQ(done, 0) << workers;
        opened.set_value();
        destroyer.join();
        caller.join();
    }
}

TEST_F(Pool, KeepsACancelledCallerUntilItsSolversAreDone)
{
    ConcurrentPool pool(2);
    std::promise<void> opened;
    const std::shared_future<void> isOpen = opened.get_future().share();
    int done = 0;
    std::thread caller = ky::test::StartUntilAsleep([&] {
        Solve(pool, 20, [&](kyMutex& mutex, kyWaitCondition&) {
            mutex.unlock();
            isOpen.wait();
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
            ky::test::WaitUntilOthersAreAsleep();
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
    EXPECT_EQ(ours.getWorkerCount(), ky::kySystemUtils::GetIdealThreadCount());
    // Forked while a worker holds the mutex.
    Solve(pool, 1, [&](kyMutex&, kyWaitCondition&) {
        const auto result = ky::test::RunInChild([&] {
            ::alarm(60);
            int done = 0;
            for (ConcurrentPool* const each : {&pool, &ours})
                Solve(*each, 3, [&](kyMutex&, kyWaitCondition&) { ++done; });
            EXPECT_EQ(done, 6);
            ky::terminateKySystem();
            pool.~ConcurrentPool();
        });
        EXPECT_EQ(result.exitCode, 0) << result.err;
    });
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
        Sub(char name, std::string& gone) : mName(name), mGone(gone) {}
        ~Sub() override { mGone += mName; }
        const char mName;
        std::string& mGone;
    };
    std::string gone;
    auto solver = std::make_unique<Solver>(nullptr);
    solver->addSubObject(std::make_unique<Sub>('a', gone));
    solver->addSubObject(nullptr);
    solver->addSubObject(std::make_unique<Sub>('b', gone));
    solver.reset();
    EXPECT_EQ(gone, "ab");
}

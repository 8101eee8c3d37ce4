#include "ky/kyLog.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"
#include "ky/kyThreadPeriodicalUpdater.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"

#include <climits>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

using ky::kySystemUtils;
using ky::kyThread;
using ky::kyThreadPeriodicalUpdater;
using ky::test::ExpectChildPasses;

namespace {

constexpr int sNoTimeLimit = INT_MAX;

struct Thread : ky::test::FullLibrary {};
struct Updater : ky::test::FullLibrary {};

struct Worker : kyThread {
    explicit Worker(std::function<int()> work) : mWork(std::move(work)) {}
    ~Worker() override { waitThread(sNoTimeLimit); }
    using kyThread::startLibraryThread;
    int run() override { return mWork(); }
    const std::function<int()> mWork;
};

/// Counts calls, and lets others wait for a number of them.
struct Calls {
    static void Count(void* calls)
    {
        ++static_cast<Calls*>(calls)->count;
        static_cast<Calls*>(calls)->count.notify_all();
    }
    int waitFor(int least) const
    {
        for (int seen = count; seen < least; seen = count)
            count.wait(seen);
        return least;
    }
    std::atomic<int> count = 0;
};

std::string SystemName()
{
    char name[16];
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    return name;
}

bool IsBlocked(int signal)
{
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
}

}  // namespace

TEST_F(Thread, TellsItsStateFromStartToJoin)
{
    Calls gate;
    Worker worker([&] { return gate.waitFor(1); });
    EXPECT_TRUE(!worker.isRunning() && worker.isFinished());
    EXPECT_FALSE(worker.waitThread(sNoTimeLimit));
    EXPECT_EQ(worker.getThreadId(), "InvalidThread");

    worker.startThread("first");
    worker.startThread("second");
    EXPECT_EQ(worker.getLabel(), "first " + worker.getThreadId());
    EXPECT_TRUE(worker.isRunning() && !worker.isFinished());
    const unsigned long start = kySystemUtils::GetTimeBaseMs();
    EXPECT_FALSE(worker.waitThread(0));
    EXPECT_GE(kySystemUtils::GetTimeBaseMs() - start, 14u) << "kept: one nap of 15 ms";

    Calls::Count(&gate);
    while (worker.isRunning())
        std::this_thread::yield();
    EXPECT_FALSE(worker.isFinished()) << "not joined";
    EXPECT_TRUE(worker.waitThread(0));
    EXPECT_TRUE(worker.isFinished());
    EXPECT_FALSE(worker.waitThread(0));

    worker.startThread(nullptr);
    EXPECT_EQ(worker.getLabel(), typeid(Worker).name() + (' ' + worker.getThreadId()));
}

TEST_F(Thread, EndsHoweverItsWorkIsLeft)
{
    ky::test::CaughtStream console(std::cout);
    Worker returning([] { return 7; });
    Worker throwing([]() -> int { throw std::runtime_error("left"); });
    Worker exiting([]() -> int { ::pthread_exit(nullptr); });
    for (Worker* const worker : {&returning, &throwing, &exiting}) {
        worker->startThread("leaver");
        EXPECT_TRUE(worker->waitThread(60000));
    }
    EXPECT_EQ(kyThread::Run(&returning), 7);
    EXPECT_EQ(kyThread::Run(&throwing), 0);
}

TEST_F(Thread, NeverWaitsForItselfAndMayDeleteItself)
{
    std::promise<bool> waited;
    Worker* worker = nullptr;
    worker = new Worker([&] {
        auto& result = waited;  // the function goes with the object that holds it
        const bool hasWaited = worker->waitThread(sNoTimeLimit);
        delete worker;
        result.set_value(hasWaited);
        return 0;
    });
    worker->startThread("self");
    EXPECT_FALSE(waited.get_future().get());
}

TEST_F(Thread, IsJoinedOnceByManyWaiters)
{
    Calls gate;
    Worker worker([&] { return gate.waitFor(1); });
    worker.startThread("shared");
    const auto wait = [&] { EXPECT_TRUE(worker.waitThread(sNoTimeLimit)); };
    std::thread first = ky::test::StartUntilAsleep(wait);
    std::thread second = ky::test::StartUntilAsleep(wait);
    EXPECT_FALSE(worker.waitThread(1)) << "kept waiting by those without limit";
    Calls::Count(&gate);
    first.join();
    second.join();
    EXPECT_TRUE(worker.isFinished());
}

TEST_F(Thread, HasNameAndMaskWhenItsWorkBeginsAndPassesOnTheMaskBefore)
{
    sigset_t hup = {};
    ::sigaddset(&hup, SIGHUP);
    ::pthread_sigmask(SIG_BLOCK, &hup, nullptr);
    Worker ofTheHost([&] {
        EXPECT_TRUE(IsBlocked(SIGHUP) && !IsBlocked(SIGTERM));
        EXPECT_EQ(kyThread::CurrentThreadId(), std::to_string(::gettid()));
        EXPECT_EQ(ofTheHost.getThreadId(), std::to_string(::pthread_self()));
        EXPECT_EQ(ofTheHost.getLabel(), "label of twenty byte " + ofTheHost.getThreadId());
        EXPECT_EQ(SystemName(), "label of twenty");
        return 0;
    });
    Worker worker([&] {
        EXPECT_EQ(SystemName(), "kyTest");
        EXPECT_TRUE(IsBlocked(SIGTERM) && !IsBlocked(SIGSEGV));
        ofTheHost.startThread("label of twenty byte");
        return 0;
    });
    worker.startLibraryThread("kyTest", "label");
    EXPECT_TRUE(worker.getLabel().starts_with("label "));
    EXPECT_FALSE(IsBlocked(SIGTERM));
    worker.waitThread(sNoTimeLimit);
    ::pthread_sigmask(SIG_UNBLOCK, &hup, nullptr);
}

TEST_F(Thread, DoesNotExistInAForkedChild)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer allows no thread in a child of several threads";
#endif
    ExpectChildPasses([] {
        ky::kyLog::Instance()->setEchoToConsole(false);
        Calls calls;
        const auto block = [](void* data) {
            Calls::Count(data);
            static_cast<Calls*>(data)->waitFor(2);
        };
        auto worker = std::make_unique<Worker>([&] { return calls.waitFor(2); });
        worker->startThread("parent");
        const auto joiner = ky::test::StartUntilAsleep([&] { worker->waitThread(sNoTimeLimit); });
        auto updater = std::make_unique<kyThreadPeriodicalUpdater>(1);
        updater->addCallback(block, &calls);
        calls.waitFor(1);
        if (::fork() == 0) {
            updater->addCallback(block, nullptr);
            updater->removeCallback(block, &calls);
            updater.reset();
            EXPECT_TRUE(!worker->isRunning() && worker->isFinished());
            EXPECT_FALSE(worker->waitThread(sNoTimeLimit));
            calls.count = 2;
            worker->startThread("child");
            EXPECT_TRUE(worker->waitThread(60000));
            worker.reset();
            ::_exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        ::wait(&status);
        ::_exit(status != 0 ? 1 : 0);
    });
}

TEST_F(Thread, SleepsItsWholeTimeModulo32BitsOfMicroseconds)
{
    ExpectChildPasses([] {
        ::signal(SIGALRM, [](int) {});
        ::ualarm(2000, 2000);
        const unsigned long start = kySystemUtils::GetTimeBaseMs();
        kyThread::msleep(40);
        kyThread::usleep(20000);
        EXPECT_GE(kySystemUtils::GetTimeBaseMs() - start, 59u);
        // kept: these are 704 µs, 32.704 ms and nothing, not more than an hour.
        kyThread::msleep(4294968);
        kyThread::sleep(4295);
        kyThread::usleep(1UL << 32);
    });
}

TEST_F(Updater, CallsAtOnceWhenAFunctionIsAddedAndOnceMoreAtItsEnd)
{
    Calls first, second;
    int atEnd = 0;
    {
        kyThreadPeriodicalUpdater updater(1000000);
        updater.addCallback(&Calls::Count, &first);
        first.waitFor(1);
        updater.addCallback(&Calls::Count, &second);
        second.waitFor(1);
        updater.removeCallback(&Calls::Count, nullptr);
        updater.removeCallback(&Calls::Count, &first);
        atEnd = second.count;
    }
    EXPECT_EQ(first.count, 2);
    EXPECT_EQ(second.count, atEnd + 1);
}

TEST_F(Updater, CallsPeriodically)
{
    // kept: 4294968 s are 704 ms, in 32 bits. The wall clock may run a little faster than the
    // other one.
    for (const auto& [periodSeconds, leastMs] : {std::pair(0U, 995U), std::pair(4294968U, 699U)}) {
        Calls calls;
        kyThreadPeriodicalUpdater updater(periodSeconds);
        const unsigned long start = kySystemUtils::GetTimeBaseMs();
        updater.addCallback(&Calls::Count, &calls);
        calls.waitFor(2);
        EXPECT_GE(kySystemUtils::GetTimeBaseMs() - start, leastMs);
    }
}

TEST_F(Updater, LetsFunctionsChangeTheListTheyAreCalledFrom)
{
    struct Context {
        static void Change(void* context)
        {
            auto& [removed, added, updater] = *static_cast<Context*>(context);
            updater.removeCallback(&Change, context);
            updater.addCallback(&Calls::Count, &removed);
            updater.removeCallback(&Calls::Count, &removed);
            updater.addCallback(&Calls::Count, &added);
        }
        Calls& removed;
        Calls& added;
        kyThreadPeriodicalUpdater updater{1000000};
    };
    Calls removed, added;
    {
        Context context{removed, added};
        context.updater.addCallback(&Context::Change, &context);
        added.waitFor(1);
    }
    EXPECT_EQ(removed.count, 0);
    EXPECT_EQ(added.count, 2) << "in the round that added it, and in the last one";
}

TEST_F(Updater, AndThreadsEndHoweverQuicklyTheyAreDestroyed)
{
    for (int i = 0; i < 2000; ++i) {
        Calls calls;
        {
            kyThreadPeriodicalUpdater updater(1000000);
            updater.addCallback(&Calls::Count, &calls);
            Worker worker([] { return 0; });
            worker.startThread("quick");
        }
        ASSERT_GE(calls.count, 1);
    }
}

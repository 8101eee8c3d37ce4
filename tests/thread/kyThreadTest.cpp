#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"
#include "ky/kyThreadPeriodicalUpdater.h"

#include "support/Library.h"

#include <atomic>
#include <climits>
#include <future>

#include <unistd.h>

using ky::kySystemUtils;
using ky::kyThread;
using ky::kyThreadPeriodicalUpdater;
using ky::test::StartUntilAsleep;

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

using Calls = std::atomic<int>;

void Count(void* calls)
{
    ++*static_cast<Calls*>(calls);
}

int WaitFor(const Calls& calls, int least)
{
    while (calls < least)
        std::this_thread::yield();
    return least;
}

/// The name of the calling thread in the system, and which of two signals it blocks.
std::string NameAndMask()
{
    char name[16];
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return std::string(name) + (::sigismember(&mask, SIGHUP) == 1 ? " HUP" : "") +
           (::sigismember(&mask, SIGTERM) == 1 ? " TERM" : "") +
           (::sigismember(&mask, SIGSEGV) == 1 ? " SEGV" : "");
}

}  // namespace

TEST_F(Thread, TellsItsStateAndIsJoinedOnceByManyWaiters)
{
    Calls gate = 0;
    Worker worker([&] { return WaitFor(gate, 1); });
    EXPECT_TRUE(!worker.isRunning() && worker.isFinished() && !worker.waitThread(sNoTimeLimit));
    EXPECT_EQ(worker.getThreadId(), "InvalidThread");
    worker.startThread("first");
    worker.startThread("second");
    EXPECT_EQ(worker.getLabel(), "first " + worker.getThreadId());
    EXPECT_TRUE(worker.isRunning() && !worker.isFinished());
    const unsigned long start = kySystemUtils::GetTimeBaseMs();
    EXPECT_FALSE(worker.waitThread(0));
    EXPECT_GE(kySystemUtils::GetTimeBaseMs() - start, 14u) << "kept: one nap of 15 ms";

    const auto wait = [&] { EXPECT_TRUE(worker.waitThread(sNoTimeLimit)); };
    std::thread waiters[] = {StartUntilAsleep(wait), StartUntilAsleep(wait)};
    EXPECT_FALSE(worker.waitThread(1)) << "kept waiting by those without limit";
    gate = 1;
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_TRUE(worker.isFinished() && !worker.waitThread(0));

    worker.startThread(nullptr);
    EXPECT_EQ(worker.getLabel(), typeid(Worker).name() + (' ' + worker.getThreadId()));
    while (worker.isRunning())
        std::this_thread::yield();
    EXPECT_TRUE(!worker.isFinished() && worker.waitThread(0)) << "not joined";
}

TEST_F(Thread, EndsHoweverItsWorkIsLeft)
{
    const ky::test::CaughtStream console(std::cout);
    Worker returning([] { return 7; });
    Worker throwing([]() -> int { throw 1; });
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
    std::promise<void> deleted;
    Worker* worker = nullptr;
    worker = new Worker([&] {
        auto& result = deleted;  // the function goes with the object that holds it
        EXPECT_FALSE(worker->waitThread(sNoTimeLimit));
        delete worker;
        result.set_value();
        return 0;
    });
    worker->startThread("self");
    deleted.get_future().wait();
}

TEST_F(Thread, HasNameAndMaskWhenItsWorkBeginsAndPassesOnTheMaskBefore)
{
    sigset_t hup = {};
    ::sigaddset(&hup, SIGHUP);
    ::pthread_sigmask(SIG_BLOCK, &hup, nullptr);
    Worker ofTheHost([&] {
        EXPECT_EQ(NameAndMask(), "label of twenty HUP");
        EXPECT_EQ(kyThread::CurrentThreadId(), std::to_string(::gettid()));
        return 0;
    });
    Worker worker([&] {
        EXPECT_EQ(NameAndMask(), "kyTest HUP TERM");
        ofTheHost.startThread("label of twenty byte");
        return 0;
    });
    worker.startLibraryThread("kyTest");
    worker.waitThread(sNoTimeLimit);
    ::pthread_sigmask(SIG_UNBLOCK, &hup, nullptr);
}

TEST_F(Thread, DoesNotExistInAForkedChild)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer allows no thread in a child of several threads";
#endif
    ky::test::ExpectChildPasses([] {
        Calls calls = 0;
        auto worker = std::make_unique<Worker>([&] { return WaitFor(calls, 2); });
        worker->startThread("parent");
        const auto joiner = StartUntilAsleep([&] { worker->waitThread(sNoTimeLimit); });
        auto updater = std::make_unique<kyThreadPeriodicalUpdater>(1);
        const auto block = [](void* began) {
            Count(began);
            ::pause();
        };
        updater->addCallback(block, &calls);
        WaitFor(calls, 1);
        ::_exit(ky::test::EndOf(ky::test::Fork([&] {
            updater->addCallback(block, nullptr);
            updater->removeCallback(block, &calls);
            updater.reset();
            EXPECT_TRUE(!worker->isRunning() && worker->isFinished());
            EXPECT_FALSE(worker->waitThread(sNoTimeLimit));
            calls = 2;
            worker->startThread("child");
            EXPECT_TRUE(worker->waitThread(60000));
            worker.reset();
        })));
    });
}

TEST_F(Thread, SleepsItsWholeTimeModulo32BitsOfMicroseconds)
{
    ky::test::ExpectChildPasses([] {
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

TEST_F(Updater, CallsPeriodically)
{
    // kept: 4294968 s are 704 ms, in 32 bits. The wall clock may run a little faster than the
    // other one.
    for (const auto& [periodSeconds, leastMs] : {std::pair(0U, 995U), std::pair(4294968U, 699U)}) {
        Calls calls = 0;
        kyThreadPeriodicalUpdater updater(periodSeconds);
        const unsigned long start = kySystemUtils::GetTimeBaseMs();
        updater.addCallback(&Count, &calls);
        WaitFor(calls, 2);
        EXPECT_GE(kySystemUtils::GetTimeBaseMs() - start, leastMs);
    }
}

TEST_F(Updater, CallsAtOnceAndAtItsEndWhateverFunctionsDoToTheList)
{
    struct Change {
        static void Call(void* change)
        {
            auto& [removed, added, updater] = *static_cast<Change*>(change);
            updater->removeCallback(&Call, change);
            updater->addCallback(&Count, &removed);
            updater->removeCallback(&Count, &removed);
            updater->addCallback(&Count, &added);
        }
        Calls removed = 0, added = 0;
        kyThreadPeriodicalUpdater* updater;
    } change;
    Calls other = 0;
    {
        kyThreadPeriodicalUpdater updater(1000000);
        change.updater = &updater;
        updater.addCallback(&Count, &other);
        WaitFor(other, 1);
        updater.removeCallback(&Count, nullptr);
        updater.addCallback(&Change::Call, &change);
        WaitFor(change.added, 1);
        updater.removeCallback(&Count, &other);
    }
    EXPECT_EQ(other, 2);
    EXPECT_EQ(change.removed, 0);
    EXPECT_EQ(change.added, 2) << "in the round that added it, and in the last one";
}

TEST_F(Updater, AndThreadsEndHoweverQuicklyTheyAreDestroyed)
{
    for (int i = 0; i < 2000; ++i) {
        kyThreadPeriodicalUpdater updater(1000000);
        Worker worker([] { return 0; });
        worker.startThread("quick");
    }
}

#include "ky/kyLog.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"
#include "ky/kyThreadPeriodicalUpdater.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"
#include "thread/LaunchMask.h"

#include <climits>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

using ky::kySystemUtils;
using ky::kyThread;
using ky::kyThreadPeriodicalUpdater;
using ky::test::RunInChild;

namespace {

constexpr int sNoTimeLimit = INT_MAX;

struct Thread : ky::test::FullLibrary {};
struct Updater : ky::test::FullLibrary {};

class Worker : public kyThread {
public:
    explicit Worker(std::function<int(Worker&)> work) : mWork(std::move(work)) {}
    ~Worker() override { waitThread(sNoTimeLimit); }
    using kyThread::isInherited;
    using kyThread::startLibraryThread;

protected:
    int run() override { return mWork(*this); }

private:
    const std::function<int(Worker&)> mWork;
};

/// Runs until it is opened.
class Gate {
public:
    ~Gate() { open(); }
    void open()
    {
        if (!mIsOpen)
            mPromise.set_value();
        mIsOpen = true;
    }
    int pass() const
    {
        mFuture.wait();
        return 0;
    }
    std::function<int(Worker&)> work() const
    {
        return [this](Worker&) { return pass(); };
    }

private:
    bool mIsOpen = false;
    std::promise<void> mPromise;
    const std::shared_future<void> mFuture{mPromise.get_future()};
};

/// Notes the time of calls, and lets others wait for a number of them.
class Calls {
public:
    static void Count(void* calls)
    {
        auto* const self = static_cast<Calls*>(calls);
        const std::lock_guard lock(self->mMutex);
        self->mTimesMs.push_back(kySystemUtils::GetTimeBaseMs());
        self->mChanged.notify_all();
    }
    void waitFor(std::size_t count)
    {
        std::unique_lock lock(mMutex);
        mChanged.wait(lock, [&] { return mTimesMs.size() >= count; });
    }
    std::size_t count()
    {
        const std::lock_guard lock(mMutex);
        return mTimesMs.size();
    }
    unsigned long millisecondsBetweenTheFirstTwo()
    {
        waitFor(2);
        const std::lock_guard lock(mMutex);
        return mTimesMs[1] - mTimesMs[0];
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<unsigned long> mTimesMs;
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

void ExpectChildPasses(const std::function<void()>& body)
{
    const auto result = RunInChild(body);
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

}  // namespace

TEST_F(Thread, TellsItsStateFromStartToJoin)
{
    Gate gate;
    Worker worker(gate.work());
    EXPECT_FALSE(worker.isRunning());
    EXPECT_TRUE(worker.isFinished()) << "never started";
    EXPECT_FALSE(worker.waitThread(sNoTimeLimit));
    EXPECT_EQ(worker.getThreadId(), "InvalidThread");

    worker.startThread("first");
    const std::string label = worker.getLabel();
    worker.startThread("second");
    EXPECT_EQ(worker.getLabel(), label) << "started twice";
    EXPECT_EQ(label, "first " + worker.getThreadId());
    EXPECT_TRUE(worker.isRunning());
    EXPECT_FALSE(worker.isFinished());
    const unsigned long start = kySystemUtils::GetTimeBaseMs();
    EXPECT_FALSE(worker.waitThread(-1));
    EXPECT_FALSE(worker.waitThread(INT_MIN));
    EXPECT_FALSE(worker.waitThread(0));
    EXPECT_GE(kySystemUtils::GetTimeBaseMs() - start, 14u) << "kept: one nap of 15 ms";

    gate.open();
    while (worker.isRunning())
        std::this_thread::yield();
    EXPECT_FALSE(worker.isFinished()) << "not joined";
    EXPECT_TRUE(worker.waitThread(0));
    EXPECT_TRUE(worker.isFinished());
    EXPECT_FALSE(worker.waitThread(0));
    EXPECT_EQ(worker.getThreadId(), "InvalidThread");

    worker.startThread(nullptr);
    EXPECT_EQ(worker.getLabel(), typeid(Worker).name() + (' ' + worker.getThreadId()));
    EXPECT_TRUE(worker.waitThread(sNoTimeLimit));
}

TEST_F(Thread, HasItsLabelAndNameWhenItsWorkBegins)
{
    for (const char* const label : {"a", "label of twenty byte", ""}) {
        std::string seen;
        Worker worker([&](Worker& self) {
            seen = self.getLabel() + '|' + self.getThreadId() + '|' + SystemName();
            return 0;
        });
        worker.startThread(label);
        const std::string id = worker.getThreadId();
        worker.waitThread(sNoTimeLimit);
        const std::string name = *label != '\0' ? std::string(label, 0, 15) : SystemName();
        EXPECT_EQ(seen, std::string(label) + ' ' + id + '|' + id + '|' + name);
    }
}

TEST_F(Thread, EndsHoweverItsWorkIsLeft)
{
    ky::test::CaughtStream console(std::cout);
    for (const auto& leave : std::vector<std::function<int()>>{
             [] { return 7; }, []() -> int { throw std::runtime_error("left"); },
             []() -> int { throw 1; }, []() -> int { ::pthread_exit(nullptr); }}) {
        Worker worker([&](Worker&) { return leave(); });
        worker.startThread("leaver");
        EXPECT_TRUE(worker.waitThread(60000));
        EXPECT_FALSE(worker.isRunning());
    }
    Worker returning([](Worker&) { return 7; });
    Worker throwing([](Worker&) -> int { throw 1; });
    EXPECT_EQ(kyThread::Run(&returning), 7);
    EXPECT_EQ(kyThread::Run(&throwing), 0);
}

TEST_F(Thread, NeverWaitsForItselfAndMayDeleteItself)
{
    std::atomic<int> waited = -1;
    auto* const worker = new Worker([&](Worker& self) {
        std::atomic<int>& result = waited;  // the function goes with the object that holds it
        const bool hasWaited = self.waitThread(sNoTimeLimit);
        delete &self;
        result = hasWaited;
        return 0;
    });
    worker->startThread("self");
    while (waited == -1)
        std::this_thread::yield();
    EXPECT_EQ(waited, 0);

    auto* const called = new Worker([](Worker& self) {
        delete &self;
        return 3;
    });
    EXPECT_EQ(kyThread::Run(called), 3);
}

TEST_F(Thread, IsJoinedOnceByManyWaiters)
{
    Gate gate;
    Worker worker(gate.work());
    worker.startThread("shared");
    std::vector<std::thread> waiters;
    for (const int timeoutMs : {sNoTimeLimit, sNoTimeLimit, 60000, 60000})
        waiters.push_back(ky::test::StartUntilAsleep(
            [&worker, timeoutMs] { EXPECT_TRUE(worker.waitThread(timeoutMs)); }));
    EXPECT_FALSE(worker.waitThread(1)) << "kept waiting by those without limit";
    gate.open();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_TRUE(worker.isFinished());
}

TEST_F(Thread, IsAsBeforeWhenTheSystemRefusesIt)
{
    ExpectChildPasses([] {
        pthread_attr_t attributes;
        ::pthread_getattr_default_np(&attributes);
        ::pthread_attr_setstacksize(&attributes, 1UL << 46);
        ::pthread_setattr_default_np(&attributes);
        Worker worker([](Worker&) { return 0; });
        EXPECT_THROW(worker.startThread("huge"), std::system_error);
        EXPECT_THROW(worker.startLibraryThread("huge"), std::system_error);
        EXPECT_FALSE(IsBlocked(SIGTERM));
        EXPECT_FALSE(worker.isRunning());
        EXPECT_TRUE(worker.isFinished());
        EXPECT_EQ(worker.getLabel(), "");
    });
}

TEST_F(Thread, OfTheLibraryBlocksSignalsAndPassesOnTheMaskBefore)
{
    sigset_t hup;
    ::sigemptyset(&hup);
    ::sigaddset(&hup, SIGHUP);
    ::pthread_sigmask(SIG_BLOCK, &hup, nullptr);
    const auto expectMaskOfHost = [](Worker&) {
        EXPECT_TRUE(IsBlocked(SIGHUP));
        EXPECT_FALSE(IsBlocked(SIGTERM));
        return 0;
    };
    const auto expectBlocked = [](Worker&) {
        EXPECT_EQ(SystemName(), "kyTest");
        EXPECT_TRUE(IsBlocked(SIGTERM));
        EXPECT_FALSE(IsBlocked(SIGSEGV));
        EXPECT_FALSE(IsBlocked(SIGABRT));
        const sigset_t launch = ky::impl::LaunchSignalMask();
        EXPECT_EQ(::sigismember(&launch, SIGHUP), 1);
        EXPECT_EQ(::sigismember(&launch, SIGTERM), 0);
        return 0;
    };
    Worker worker([&](Worker& self) {
        expectBlocked(self);
        Worker ofTheLibrary(expectBlocked);
        ofTheLibrary.startLibraryThread("kyTest");
        Worker ofTheHost(expectMaskOfHost);
        ofTheHost.startThread("host");
        return 0;
    });
    worker.startLibraryThread("kyTest", "label");
    EXPECT_EQ(worker.getLabel().find("label "), 0u);
    expectMaskOfHost(worker);
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
        struct Blocker {
            Calls calls;
            Gate gate;
        } blocker;
        const auto block = [](void* data) {
            Calls::Count(&static_cast<Blocker*>(data)->calls);
            static_cast<Blocker*>(data)->gate.pass();
        };
        auto worker = std::make_unique<Worker>(blocker.gate.work());
        worker->startThread("parent");
        std::thread joiner = ky::test::StartUntilAsleep([&] { worker->waitThread(sNoTimeLimit); });
        auto updater = std::make_unique<kyThreadPeriodicalUpdater>(1);
        updater->addCallback(block, &blocker);
        blocker.calls.waitFor(1);
        const pid_t child = ::fork();
        if (child == 0) {
            updater->addCallback(block, nullptr);
            updater->removeCallback(block, &blocker);
            updater.reset();
            EXPECT_TRUE(worker->isInherited());
            EXPECT_FALSE(worker->isRunning());
            EXPECT_TRUE(worker->isFinished());
            EXPECT_FALSE(worker->waitThread(sNoTimeLimit));
            EXPECT_EQ(worker->getThreadId(), "InvalidThread");
            blocker.gate.open();
            worker->startThread("child");
            EXPECT_TRUE(worker->waitThread(60000));
            worker.reset();
            ::_exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        blocker.gate.open();
        joiner.join();
    });
}

TEST_F(Thread, SleepsItsWholeTimeModulo32BitsOfMicroseconds)
{
    ExpectChildPasses([] {
        // Without a handler that restarts calls: usleep(3) would end early.
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGALRM, &action, nullptr);
        const itimerval often = {{0, 2000}, {0, 2000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
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

TEST_F(Thread, HasAnIdOfItsOwnWhichIsTheKernels)
{
    const std::string& id = kyThread::CurrentThreadId();
    EXPECT_EQ(id, std::to_string(::gettid()));
    EXPECT_EQ(&kyThread::CurrentThreadId(), &id);
    EXPECT_NE(std::async(std::launch::async, [] { return kyThread::CurrentThreadId(); }).get(), id);
}

TEST_F(Updater, CallsAtOnceWhenAFunctionIsAddedAndOnceMoreAtItsEnd)
{
    Calls first;
    Calls second;
    std::size_t atEnd = 0;
    {
        kyThreadPeriodicalUpdater updater(1000000);
        EXPECT_EQ(updater.getLabel().find("N2ky25kyThreadPeriodicalUpdaterE "), 0u);
        updater.addCallback(&Calls::Count, &first);
        first.waitFor(1);
        updater.addCallback(&Calls::Count, &second);
        second.waitFor(1);
        first.waitFor(2);
        updater.removeCallback(&Calls::Count, nullptr);
        updater.removeCallback(&Calls::Count, &first);
        atEnd = second.count();
    }
    EXPECT_EQ(first.count(), 2u);
    EXPECT_EQ(second.count(), atEnd + 1);
}

TEST_F(Updater, CallsPeriodically)
{
    // kept: 4294968 s are 704 ms, in 32 bits. The wall clock may run a little faster than the
    // other one.
    for (const auto& [periodSeconds, leastMs] : {std::pair(0U, 995U), std::pair(4294968U, 699U)}) {
        Calls calls;
        kyThreadPeriodicalUpdater updater(periodSeconds);
        updater.addCallback(&Calls::Count, &calls);
        EXPECT_GE(calls.millisecondsBetweenTheFirstTwo(), leastMs);
    }
}

TEST_F(Updater, LetsFunctionsChangeTheListTheyAreCalledFrom)
{
    struct Context {
        static void AddTwo(void* context)
        {
            auto* const self = static_cast<Context*>(context);
            self->updater.removeCallback(&AddTwo, context);
            self->updater.addCallback(&ReplaceBoth, context);
            self->updater.addCallback(&Calls::Count, &self->removed);
        }
        static void ReplaceBoth(void* context)
        {
            auto* const self = static_cast<Context*>(context);
            self->updater.removeCallback(&ReplaceBoth, context);
            self->updater.removeCallback(&Calls::Count, &self->removed);
            self->updater.addCallback(&Calls::Count, &self->added);
        }
        Calls removed;
        Calls& added;
        kyThreadPeriodicalUpdater updater{1000000};
    };
    Calls added;
    {
        Context context{{}, added};
        context.updater.addCallback(&Context::AddTwo, &context);
        added.waitFor(1);
        context.updater.removeCallback(nullptr, nullptr);
        EXPECT_EQ(context.removed.count(), 0u);
    }
    EXPECT_EQ(added.count(), 2u) << "in the round that added it, and in the last one";
}

TEST_F(Updater, EndsWithAFunctionThatThrowsAndReleasesItsMutex)
{
    ky::test::CaughtStream console(std::cout);
    kyThreadPeriodicalUpdater updater(1000000);
    const auto fail = [](void*) { throw std::runtime_error("callback"); };
    updater.addCallback(fail, nullptr);
    while (updater.isRunning())
        std::this_thread::yield();
    updater.removeCallback(fail, nullptr);
}

TEST_F(Updater, AndThreadsEndHoweverQuicklyTheyAreDestroyed)
{
    for (int i = 0; i < 2000; ++i) {
        Calls calls;
        {
            kyThreadPeriodicalUpdater updater(1000000);
            updater.addCallback(&Calls::Count, &calls);
            Worker worker([](Worker&) { return 0; });
            worker.startThread("quick");
        }
        ASSERT_GE(calls.count(), 1u);
    }
}

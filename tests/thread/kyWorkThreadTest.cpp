#include "ky/kyWorkThread.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>

#include <unistd.h>

using ky::kyJob;
using ky::kyWorkThread;

namespace {

struct WorkThread : ky::test::FullLibrary {};

struct Job : kyJob {
    explicit Job(std::function<void()> work) : mWork(std::move(work)) {}
    void onDelete() override
    {
        EXPECT_EQ(::getpid(), mProcess) << "the queue was in use at the fork";
        delete this;
    }
    const std::function<void()> mWork;
    const pid_t mProcess = ::getpid();
};

struct Worker : kyWorkThread {
    ~Worker() override { stop(); }
    int run() override
    {
        mId.set_value(CurrentThreadId());
        return kyWorkThread::run();
    }
    void processJob(kyJob* job) override
    {
        const std::unique_ptr<Job> owned(static_cast<Job*>(job));
        owned->mWork();
    }
    void add(std::function<void()> work) { addJob(new Job(std::move(work))); }
    void hand(std::function<void()> work)
    {
        beginWake();
        add(std::move(work));
        endWake();
    }
    void startAndWaitUntilAsleep()
    {
        startThread("worker");
        ky::test::WaitUntilAsleep(mId.get_future().get());
    }
    std::promise<std::string> mId;
};

/// A job that says that it runs and goes on when it is told to.
struct Gate {
    std::function<void()> job()
    {
        return [this] {
            entered.set_value();
            opened.get_future().wait();
        };
    }
    std::promise<void> entered;
    std::promise<void> opened;
};

}  // namespace

TEST_F(WorkThread, TakesJobsInOrderAndOnlyOnceTheirBracketIsClosed)
{
    std::atomic<int> done = 0;
    std::promise<void> last;
    const auto note = [&](int number) { return [&, number] { EXPECT_EQ(done++, number); }; };
    Worker worker;
    worker.add(note(0));
    worker.startAndWaitUntilAsleep();
    worker.beginWake();
    worker.beginWake();
    worker.endWake();
    for (int i = 1; i < 1000; ++i)
        worker.add(note(i));
    EXPECT_EQ(done, 0) << "the bracket is still open";
    worker.add([&] { last.set_value(); });
    worker.endWake();
    last.get_future().wait();
    EXPECT_EQ(done, 1000);
    worker.beginWake();
    worker.endWake();
    EXPECT_TRUE(worker.stop());
}

TEST_F(WorkThread, ClosesABracketOnlyWhenTheJobInWorkIsDoneOrInAForkedChild)
{
    Gate gate;
    std::atomic<bool> isClosed = false;
    bool wasClosed = true;
    Worker worker;
    worker.startAndWaitUntilAsleep();
    worker.hand([&] {
        gate.job()();
        wasClosed = isClosed;
        // Somebody is in endWake and owns the queue.
        EXPECT_FALSE(worker.stop());
    });
    gate.entered.get_future().wait();
    auto producer = ky::test::StartUntilAsleep([&] {
        worker.hand([] { ADD_FAILURE() << "the worker had been stopped before"; });
        isClosed = true;
    });
    // Both mutexes are held, for ever as a forked child sees it.
    const auto result = ky::test::RunInChild([&] {
        alarm(60);
        worker.hand([] { ADD_FAILURE() << "there is no worker"; });
        EXPECT_FALSE(worker.stop());
        worker.clearJobs();
        worker.~Worker();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    gate.opened.set_value();
    producer.join();
    EXPECT_FALSE(wasClosed);
    EXPECT_TRUE(worker.waitThread(60000));
    EXPECT_FALSE(worker.stop());
    worker.clearJobs();
}

TEST_F(WorkThread, EndsWheneverItIsToldToOrItsHandlerThrows)
{
    {
        Worker worker;
        EXPECT_FALSE(worker.stop()) << "never started";
        worker.addJob(nullptr);
        worker.add([] { ADD_FAILURE() << "run() must not touch the queue"; });
        EXPECT_EQ(ky::kyThread::Run(&worker), 1);
        worker.clearJobs();
    }
    {
        Gate gate;
        Worker worker;
        worker.startThread("busy");
        worker.beginWake();
        worker.add(gate.job());
        worker.add([] { ADD_FAILURE() << "queued behind the stop"; });
        worker.endWake();
        gate.entered.get_future().wait();
        auto stopper = ky::test::StartUntilAsleep([&] { EXPECT_TRUE(worker.stop()); });
        gate.opened.set_value();
        stopper.join();
        EXPECT_FALSE(worker.stop()) << "nothing is left to join";
        worker.clearJobs();
    }
    {
        // Ends by itself, and blocks nobody.
        std::promise<void> begun;
        Worker worker;
        worker.startThread("throws");
        worker.hand([&] {
            begun.set_value();
            throw std::runtime_error("told to");
        });
        begun.get_future().wait();
        worker.hand([] { ADD_FAILURE() << "the thread has ended"; });
        EXPECT_TRUE(worker.waitThread(60000));
        worker.clearJobs();
    }
    for (int i = 0; i < 500; ++i) {
        Worker worker;
        worker.startThread("race");
        worker.hand([] {});
        ASSERT_TRUE(worker.stop());
        worker.clearJobs();
    }
}

#include "ky/kyWorkThread.h"

#include "support/Library.h"

#include <atomic>
#include <future>

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
    ~Worker() override
    {
        stop();
        clearJobs();
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
};

void Fail()
{
    ADD_FAILURE() << "there is no worker";
}

}  // namespace

TEST_F(WorkThread, TakesJobsInOrderAndOnlyOnceTheirBracketIsClosed)
{
    std::atomic<int> done = 0;
    std::promise<void> last;
    const auto note = [&](int number) { return [&, number] { EXPECT_EQ(done++, number); }; };
    Worker worker;
    worker.add(note(0));
    worker.startThread("worker");
    ky::test::WaitUntilOthersAreAsleep();
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
    EXPECT_TRUE(worker.stop());
}

TEST_F(WorkThread, ClosesABracketOnlyWhenTheJobInWorkIsDoneOrInAForkedChild)
{
    std::promise<void> entered, opened;
    std::atomic<bool> isClosed = false;
    Worker worker;
    worker.startThread("worker");
    worker.hand([&] {
        entered.set_value();
        opened.get_future().wait();
        EXPECT_FALSE(isClosed);
        // Somebody is in endWake and owns the queue.
        EXPECT_FALSE(worker.stop());
    });
    entered.get_future().wait();
    auto producer = ky::test::StartUntilAsleep([&] {
        worker.hand(&Fail);
        isClosed = true;
    });
    // Both mutexes are held, for ever as a forked child sees it.
    ky::test::ExpectChildPasses([&] {
        ::alarm(60);
        worker.hand(&Fail);
        EXPECT_FALSE(worker.stop());
        worker.~Worker();
    });
    opened.set_value();
    producer.join();
    EXPECT_TRUE(worker.waitThread(60000));
    EXPECT_FALSE(worker.stop());
}

TEST_F(WorkThread, EndsWheneverItIsToldToOrItsHandlerThrows)
{
    {
        Worker worker;
        EXPECT_FALSE(worker.stop()) << "never started";
        worker.addJob(nullptr);
        worker.add(&Fail);
        EXPECT_EQ(ky::kyThread::Run(&worker), 1) << "the queue must not be touched";
    }
    {
        // Ends by itself, and blocks nobody.
        Worker worker;
        worker.startThread("throws");
        worker.hand([] { throw 1; });
        worker.hand(&Fail);
        EXPECT_TRUE(worker.waitThread(60000));
    }
    for (int i = 0; i < 500; ++i) {
        Worker worker;
        worker.startThread("race");
        worker.hand([] {});
        ASSERT_TRUE(worker.stop() && !worker.stop());
    }
}

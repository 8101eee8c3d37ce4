#include "ky/kyMutex.h"
#include "ky/kySemaphore.h"
#include "ky/kyThread.h"
#include "ky/kyWaitCondition.h"

#include "support/Library.h"

#include <atomic>
#include <chrono>
#include <future>

#include <unistd.h>

namespace {

struct Mutex : ky::test::FullLibrary {};
struct Semaphore : ky::test::FullLibrary {};
struct WaitCondition : ky::test::FullLibrary {};

/// Whether another thread can lock and unlock the mutex.
bool IsFree(auto& mutex, auto... timeoutMs)
{
    const auto tryIt = [&] { return mutex.tryLock(timeoutMs...) && mutex.unlock() == 0; };
    return std::async(std::launch::async, tryIt).get();
}

struct IdleThread : ky::kyThread {
    int run() override { return 0; }
};

}  // namespace

TEST_F(Mutex, OpensToOthersWhenItsOwnerHasUnlockedItAsOftenAsLocked)
{
    ky::kyMutex mutex;
    EXPECT_TRUE(mutex.lock() == 0 && mutex.tryLock());
    mutex.unlock();
    EXPECT_FALSE(IsFree(mutex));
    mutex.unlock();
    {
        ky::kyMutexLocker locker(mutex);
        locker.lock();
        EXPECT_TRUE(locker.isLocked() && !IsFree(mutex));
        locker.unlock();
        EXPECT_TRUE(IsFree(mutex)) << "locked twice by its locker";
        locker.lock();
    }
    EXPECT_TRUE(IsFree(mutex));
    // kept: with a deadline in the future the last attempts would last for weeks.
    ky::kyMutex2 timed;
    for (const unsigned int timeoutMs : {0U, ~0U}) {
        EXPECT_TRUE(IsFree(timed, timeoutMs));
        timed.lock();
        EXPECT_FALSE(IsFree(timed, timeoutMs));
        timed.unlock();
    }
}

TEST_F(Semaphore, ServesWaitersOnceTheirWholeRequestsAreInStock)
{
    ky::kySemaphore semaphore(3);
    semaphore.acquire(2);
    std::atomic<bool> isEnough = false;
    std::vector<std::thread> waiters;
    for (const unsigned int request : {5U, 3U, 4U})
        waiters.push_back(ky::test::StartUntilAsleep([&, request] {
            semaphore.acquire(request);
            EXPECT_TRUE(isEnough);
        }));
    semaphore.release(1);
    ky::test::WaitUntilOthersAreAsleep();
    EXPECT_EQ(semaphore.getNoResources(), 2u) << "a part of a request was taken";
    isEnough = true;
    semaphore.release(11);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(semaphore.getNoResources(), 1u);
}

TEST_F(WaitCondition, EndsAWaitWithTimeNotBeforeItsTime)
{
    ky::kyMutex mutex;
    ky::kyWaitCondition condition;
    const ky::kyMutexLocker lock(mutex);
    for (const unsigned long timeoutMs : {0UL, 30UL, 1999UL}) {
        const auto start = std::chrono::system_clock::now();
        while (condition.wait(&mutex, timeoutMs)) {
        }
        EXPECT_GE(std::chrono::system_clock::now() - start, std::chrono::milliseconds(timeoutMs));
    }
    // kept: 2^31 seconds become -2^31, and what is left of five times that overflows to negative
    // nanoseconds, which the system refuses: a wake-up.
    EXPECT_TRUE(condition.wait(&mutex, 5000UL << 31));
}

TEST(EarlyCreation, IsToldOnceForEveryObjectBelowTheFullLevel)
{
    const auto result = ky::test::RunInChild([] {
        ky::initializeKySystem(ky::InitType::Light, false);
        ky::kyMutex();
        ky::kyMutex2();
        ky::kySemaphore(1);
        IdleThread();
        ky::kyMutexSystem{("ky-early-" + std::to_string(::getpid())).c_str()};
        ky::kyLog::Instance()->flush();
    });
    EXPECT_EQ(result.out.find("CRITICAL PID "), 0u) << result.out;
    std::string texts;
    for (const std::string& line : ky::test::Lines(result.out))
        texts += line.substr(line.find(" : ") + 3) + '\n';
    const std::string mutexText = "Mutex created before full init of kySystem\n";
    EXPECT_EQ(texts, mutexText + mutexText + mutexText +
                         "WaitCondition created before full init of kySystem\n"
                         "Thread create before full init of kySystem\n" +
                         mutexText);
}

TEST(ForkedChild, DestroysWhatThreadsOfItsParentHoldAndWaitFor)
{
    const auto result = ky::test::RunInChild([] {
        ky::initializeKySystem(ky::InitType::Full, false);
        struct Objects {
            ky::kyMutex mutex;
            ky::kyMutex2 mutex2;
            ky::kyWaitCondition condition;
            ky::kySemaphore semaphore{0};
        };
        auto objects = std::make_unique<Objects>();
        const auto waiter = ky::test::StartUntilAsleep([&] {
            objects->mutex2.lock();
            objects->mutex.lock();
            objects->condition.wait(&objects->mutex, ~0UL);
        });
        const auto taker = ky::test::StartUntilAsleep([&] { objects->semaphore.acquire(1); });
        ky::test::WaitUntilOthersAreAsleep();
        ::_exit(ky::test::EndOf(ky::test::Fork([&] {
            objects.reset();
            ky::kyMutex own;
            EXPECT_TRUE(own.tryLock());
            ky::kyLog::Instance()->flush();
            ::_exit(0);
        })));
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    // kept: condition, mutex, the two in the semaphore and the new mutex; kyMutex2 does not check.
    EXPECT_EQ(ky::test::Lines(result.out).size(), 5u) << result.out;
}

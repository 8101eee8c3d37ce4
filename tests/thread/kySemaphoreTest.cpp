#include "ky/kySemaphore.h"
#include "ky/kyWaitCondition.h"

#include "support/Asleep.h"
#include "support/Library.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

struct Semaphore : ky::test::FullLibrary {};
struct WaitCondition : ky::test::FullLibrary {};

}  // namespace

TEST_F(Semaphore, ServesWaitersOnceTheirWholeRequestsAreInStock)
{
    ky::kySemaphore semaphore(3);
    semaphore.acquire(2);
    std::atomic<pid_t> lastWaiter = 0;
    std::atomic<bool> isEnough = false;
    std::vector<std::thread> waiters;
    for (const unsigned int request : {5U, 3U, 4U})
        waiters.push_back(ky::test::StartUntilAsleep([&, request] {
            lastWaiter = ::gettid();
            semaphore.acquire(request);
            EXPECT_TRUE(isEnough);
        }));
    semaphore.release(1);
    ky::test::WaitUntilAsleep(std::to_string(lastWaiter));
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
    ky::kyMutexLocker lock(mutex);
    for (const unsigned long timeoutMs : {0UL, 30UL, 1999UL}) {
        const auto start = std::chrono::system_clock::now();
        while (condition.wait(&mutex, timeoutMs)) {
        }
        EXPECT_GE((std::chrono::system_clock::now() - start) / std::chrono::milliseconds(1),
                  static_cast<long>(timeoutMs));
    }
    // kept: 2^31 seconds become -2^31, and what is left of five times that overflows to negative
    // nanoseconds, which the system refuses: a wake-up.
    EXPECT_TRUE(condition.wait(&mutex, 5000UL << 31));
    // A quarter of an hour before the largest value plus one, which is in the past.
    EXPECT_FALSE(condition.wait(&mutex, ~0UL - 899999));
}

TEST_F(WaitCondition, WakesOneOrAllAndReleasesTheMutexMeanwhile)
{
    ky::kyMutex mutex;
    ky::kyWaitCondition canPass, hasPassed;
    int passes = 0, passed = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.push_back(ky::test::StartUntilAsleep([&] {
            ky::kyMutexLocker lock(mutex);
            while (passed == passes)
                EXPECT_TRUE(canPass.wait(&mutex, ~0UL));
            ++passed;
            hasPassed.wakeAll();
        }));
    ky::kyMutexLocker lock(mutex);
    passes = 1;
    canPass.wakeOne();
    while (passed < 1)
        hasPassed.wait(&mutex, ~0UL);
    passes = 3;
    canPass.wakeAll();
    lock.unlock();
    for (std::thread& waiter : waiters)
        waiter.join();
}

#include "ky/kySemaphore.h"
#include "ky/kyWaitCondition.h"

#include "support/Asleep.h"
#include "support/Library.h"

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include <ctime>

using ky::kyMutex;
using ky::kyMutexLocker;
using ky::kySemaphore;
using ky::kyWaitCondition;
using ky::test::StartUntilAsleep;

namespace {

constexpr unsigned long sNoTimeLimit = ~0UL;

struct Semaphore : ky::test::FullLibrary {};
struct WaitCondition : ky::test::FullLibrary {};

double WallClockSeconds()
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace

TEST_F(Semaphore, CountsWhatIsTakenAndGivenBack)
{
    kySemaphore semaphore(3);
    semaphore.acquire(2);
    EXPECT_EQ(semaphore.getNoResources(), 1u);
    semaphore.release(4);
    semaphore.release(0);
    semaphore.acquire(0);
    EXPECT_EQ(semaphore.getNoResources(), 5u);
    semaphore.release(~0U);
    EXPECT_EQ(semaphore.getNoResources(), 4u);
}

TEST_F(Semaphore, KeepsAWaiterAsleepUntilItsWholeRequestIsInStock)
{
    kySemaphore semaphore(0);
    std::atomic<int> released = 0;
    int releasedWhenAcquired = 0;
    std::thread waiter = StartUntilAsleep([&] {
        semaphore.acquire(2);
        releasedWhenAcquired = released;
    });

    released = 1;
    semaphore.release(1);
    EXPECT_EQ(semaphore.getNoResources(), 1u) << "a part of the request was taken";
    released = 2;
    semaphore.release(1);
    waiter.join();
    EXPECT_EQ(releasedWhenAcquired, 2);
}

TEST_F(Semaphore, ServesLargeAndSmallRequestsByOneRelease)
{
    kySemaphore semaphore(0);
    std::vector<std::thread> waiters;
    for (const unsigned int request : {5U, 1U, 2U})
        waiters.push_back(StartUntilAsleep([&semaphore, request] { semaphore.acquire(request); }));
    semaphore.release(8);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(semaphore.getNoResources(), 0u);
}

TEST_F(WaitCondition, EndsAWaitWithTimeNotBeforeItsTime)
{
    kyMutex mutex;
    kyWaitCondition condition;
    kyMutexLocker lock(mutex);
    EXPECT_FALSE(condition.wait(&mutex, 0));
    const double now = WallClockSeconds();
    const auto toNextSecondMs = static_cast<unsigned long>(1010 - (now - std::floor(now)) * 1000);
    for (const unsigned long timeoutMs : {1UL, 30UL, toNextSecondMs}) {
        const double start = WallClockSeconds();
        while (condition.wait(&mutex, timeoutMs)) {
        }
        EXPECT_GE(WallClockSeconds() - start, static_cast<double>(timeoutMs) / 1000 - 1e-6);
    }
}

TEST_F(WaitCondition, TakesHugeTimesAsTheArithmeticLeavesThem)
{
    kyMutex mutex;
    kyWaitCondition condition;
    kyMutexLocker lock(mutex);
    // kept: 2^31 seconds become -2^31, and what is left of five times that overflows to negative
    // nanoseconds, which the system refuses: a wake-up.
    EXPECT_TRUE(condition.wait(&mutex, 5000UL << 31));
    // A quarter of an hour before the largest value plus one, which is in the past.
    EXPECT_FALSE(condition.wait(&mutex, sNoTimeLimit - 899999));
}

TEST_F(WaitCondition, WakesOneOrAllAndReleasesTheMutexMeanwhile)
{
    kyMutex mutex;
    kyWaitCondition canPass;
    kyWaitCondition hasPassed;
    int passes = 0;
    int passed = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(StartUntilAsleep([&] {
            kyMutexLocker lock(mutex);
            while (passes == 0)
                EXPECT_TRUE(canPass.wait(&mutex, sNoTimeLimit));
            --passes;
            ++passed;
            hasPassed.wakeAll();
        }));
    }
    kyMutexLocker lock(mutex);
    passes = 1;
    canPass.wakeOne();
    while (passed < 1)
        hasPassed.wait(&mutex, sNoTimeLimit);
    passes = 2;
    canPass.wakeAll();
    lock.unlock();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(passed, 3);
}

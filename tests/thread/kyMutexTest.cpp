#include "ky/kyLog.h"
#include "ky/kyMutex.h"
#include "ky/kySemaphore.h"
#include "ky/kyThread.h"
#include "ky/kyWaitCondition.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"

#include <algorithm>
#include <future>
#include <memory>

#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Mutex : ky::test::FullLibrary {};

/// Whether another thread can lock and unlock the mutex.
template <typename Mutex, typename... Timeout>
bool IsFree(Mutex& mutex, Timeout... timeoutMs)
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
    EXPECT_EQ(mutex.lock(), 0);
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
    EXPECT_FALSE(IsFree(mutex));
    mutex.unlock();
    {
        ky::kyMutexLocker locker(mutex);
        locker.lock();
        EXPECT_TRUE(locker.isLocked() && !IsFree(mutex));
        locker.unlock();
        locker.unlock();
        EXPECT_TRUE(IsFree(mutex)) << "locked twice by its locker";
        locker.lock();
    }
    const ky::kyMutexLocker idle(mutex, false);
    EXPECT_TRUE(IsFree(mutex));
}

// kept: with a deadline in the future the last attempts would last for weeks.
TEST_F(Mutex, NeverWaitsInATimedAttempt)
{
    ky::kyMutex2 mutex;
    for (const unsigned int timeoutMs : {0U, ~0U}) {
        EXPECT_TRUE(IsFree(mutex, timeoutMs));
        mutex.lock();
        EXPECT_FALSE(IsFree(mutex, timeoutMs));
        EXPECT_TRUE(mutex.tryLock(timeoutMs) && mutex.unlock() == 0) << "its owner's";
        mutex.unlock();
    }
}

TEST(EarlyCreation, IsToldOnceForEveryObjectBelowTheFullLevel)
{
    const auto result = ky::test::RunInChild([] {
        for (const int level : {0, 1, 2}) {
            if (level > 0)
                ky::initializeKySystem(level == 1 ? ky::InitType::Light : ky::InitType::Full,
                                       false);
            ky::kyMutex();
            ky::kyMutex2();
            ky::kySemaphore(1);
            IdleThread();
            ky::kyMutexSystem{("ky-early-" + std::to_string(::getpid())).c_str()};
            std::cout << "next : next" << std::endl;
        }
        ky::kyLog::Instance()->flush();
    });
    EXPECT_EQ(result.exitCode, 0);
    std::string texts;
    for (const std::string& line : ky::test::Lines(result.out))
        texts += line.substr(line.find(" : ") + 3) + '\n';
    const std::string mutexText = "Mutex created before full init of kySystem\n";
    EXPECT_EQ(texts, "next\n" + mutexText + mutexText + mutexText +
                         "WaitCondition created before full init of kySystem\n"
                         "Thread create before full init of kySystem\n" +
                         mutexText + "next\nnext\n");
    EXPECT_EQ(result.out.find("next : next\nCRITICAL PID "), 0u) << result.out;
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
        if (::fork() == 0) {
            objects.reset();
            ky::kyMutex own;
            EXPECT_TRUE(own.tryLock());
            ky::kyLog::Instance()->flush();
            ::_exit(0);
        }
        int status = -1;
        ::wait(&status);
        ::_exit(status);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    // kept: condition, mutex, the two in the semaphore and the new mutex; kyMutex2 does not check.
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 5) << result.out;
}

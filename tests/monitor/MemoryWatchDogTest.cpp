#include "ky/MemoryWatchDog.h"

#include "ky/kyHighResTimer.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"

#include "support/Child.h"
#include "support/Crashes.h"
#include "support/Library.h"

#include <iostream>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

using ky::MemoryWatchDog;

namespace {

struct WatchDog : ky::test::FullLibrary {};

constexpr unsigned long sHuge = 1UL << 30;

void BlockForEver(std::list<ky::kyLog::LogEntry>&, void*)
{
    for (;;)
        ::pause();
}

void FillStandardOutput()
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::dup2(ends[1], STDOUT_FILENO);
    ::fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
    const std::string block(65536, '.');
    while (::write(STDOUT_FILENO, block.data(), block.size()) > 0) {
    }
    ::fcntl(STDOUT_FILENO, F_SETFL, 0);
}

/// A child that a watchdog ends after `prepare`.
ky::test::ChildResult RunUntilKilled(const std::function<void()>& prepare)
{
    return ky::test::RunInChild([&] {
        ::alarm(60);
        ky::initializeKySystem(ky::InitType::Full, false);
        prepare();
        // 2^64 bytes: the threshold wraps to 0.
        const MemoryWatchDog dog("cache", 1UL << 44, 77);
        for (;;)
            ::pause();
    });
}

}  // namespace

TEST(WatchDogDeath, EndsTheProcessAfterItsLineUnlessItIsDisabled)
{
    const auto result = ky::test::RunInChild([] {
        ::alarm(60);
        ky::initializeKySystem(ky::InitType::Full, false);
        ky::kyLog::Instance()->setLogLevel(ky::kyLogLevel::All);
        constexpr unsigned long room = 64;
        const long used = ky::kySystemUtils::GetUsedRamQuantityInBytes(ky::kySystemUtils::Resident);
        MemoryWatchDog dog("cache", (static_cast<unsigned long>(used) >> 20) + room, 77);
        dog.setMonitoringEnabled(false);
        const std::string tooMuch(2 * room << 20, 'x');
        ky::kyThread::msleep(450);
        ky::kyLogObject(ky::kyLog::Info) << "spared";
        ky::kyLog::Instance()->setLogLevel(ky::kyLogLevel::Normal);
        dog.setMonitoringEnabled(true);
        for (;;)
            ::pause();
    });
    EXPECT_EQ(result.exitCode, 77) << result.err;
    const std::string dog = ".* : Memory watchdog 'cache' : ";
    EXPECT_TRUE(std::regex_match(
        result.out, std::regex("TRACE" + dog + "start with a threshold of [0-9.]+MB\nTRACE" + dog +
                               "stop\n.* : spared\nCRITICAL" + dog +
                               "process is using too much RAM [0-9.]+[MG]B, it will be killed, "
                               "threshold was [0-9.]+MB\n")))
        << result.out;
}

TEST(WatchDogDeath, EndsTheProcessWhoseLogIsStuckAfterItsExitHandlers)
{
    const auto byHandler = RunUntilKilled([] {
        ky::kyLog::Instance()->installCustomHandler(&BlockForEver, nullptr);
        std::atexit([] { std::fputs("handled\n", stderr); });
    });
    EXPECT_EQ(byHandler.exitCode, 77) << byHandler.err;
    EXPECT_EQ(byHandler.err, "handled\n");
    EXPECT_EQ(RunUntilKilled(&FillStandardOutput).exitCode, 77);
}

TEST(WatchDogDeath, EndsTheProcessWhoseStandardOutputIsLocked)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunUntilKilled([] {
        FillStandardOutput();
        std::thread([] { std::cout << "keeps the lock of the stream" << std::flush; }).detach();
    });
    EXPECT_EQ(result.exitCode, 77);
}

TEST_F(WatchDog, EndsAtOnceAndInAForkedChildToo)
{
    auto dog = std::make_unique<MemoryWatchDog>("disk", sHuge, 1);
    dog->setMonitoringEnabled(false);
    ky::test::WaitUntilOthersAreAsleep();
    ky::test::ExpectChildPasses([&] {
        ::alarm(60);
        dog->setMonitoringEnabled(true);
        EXPECT_FALSE(dog->isMonitoringEnabled());
        dog.reset();
    });
}

TEST(HighResTimer, MeasuresFromStartToStop)
{
    kyHighResTimer timer;
    timer.start();
    ky::kyThread::msleep(3);
    // A little less than was slept: the clocks of the two may be adjusted.
    EXPECT_GE(timer.getElapsedTimeInMilliSec(), 2.9);
    timer.stop();
    const double stopped = timer.getElapsedTimeInMicroSec();
    timer.stop();
    EXPECT_DOUBLE_EQ(timer.getElapsedTimeInSec(), stopped / 1e6);
}

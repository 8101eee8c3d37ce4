#include "ky/MemoryWatchDog.h"
#include "ky/kyHighResTimer.h"
#include "ky/kyLog.h"
#include "ky/kyPowerStatus.h"
#include "ky/kySystemUtils.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>

#include <fcntl.h>
#include <unistd.h>

using ky::MemoryWatchDog;

namespace {

struct WatchDog : ky::test::FullLibrary {};

constexpr unsigned long sHuge = 1UL << 30;

/// The folder of the watchdog's thread in proc(5), once the thread has its name.
std::string WatchDogTask()
{
    for (;;) {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream comm(task.path() / "comm");
            std::string name;
            if (std::getline(comm, name) && name == "kyMemWatch")
                return task.path();
        }
    }
}

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

/// A child that a watchdog of threshold 0 ends, after `prepare`.
ky::test::ChildResult RunUntilKilled(const std::function<void()>& prepare)
{
    return ky::test::RunInChild([&] {
        ::alarm(60);
        ky::initializeKySystem(ky::InitType::Full, false);
        prepare();
        // 2^64 bytes: the threshold wraps to 0.
        static MemoryWatchDog dog("cache", 1UL << 44, 77);
        for (;;)
            ::pause();
    });
}

}  // namespace

TEST(WatchDogDeath, EndsTheProcessWithItsCodeAfterItsLine)
{
    const auto result = RunUntilKilled([] {});
    EXPECT_EQ(result.exitCode, 77) << result.err;
    EXPECT_TRUE(std::regex_search(
        result.out, std::regex("CRITICAL PID .* : Memory watchdog 'cache' : process is using too "
                               "much RAM [0-9.]+[KMG]?B, it will be killed, threshold was 0B\n")))
        << result.out;
}

TEST(WatchDogDeath, EndsTheProcessWhoseLogIsStuckAfterItsExitHandlers)
{
    const auto byHandler = RunUntilKilled([] {
        ky::kyLog::Instance()->installCustomHandler(&BlockForEver, nullptr);
        std::atexit([] { std::fputs("handled\n", stderr); });
    });
    EXPECT_EQ(byHandler.exitCode, 77) << byHandler.err;
    EXPECT_NE(byHandler.err.find("handled\n"), std::string::npos) << byHandler.err;
    EXPECT_EQ(RunUntilKilled(&FillStandardOutput).exitCode, 77);
}

TEST_F(WatchDog, SleepsWithoutLimitWhileItIsDisabled)
{
    MemoryWatchDog dog("disk", sHuge, 1);
    EXPECT_TRUE(dog.isMonitoringEnabled());
    const std::string task = WatchDogTask();
    dog.setMonitoringEnabled(false);
    EXPECT_FALSE(dog.isMonitoringEnabled());
    ky::test::WaitUntilAsleep(std::filesystem::path(task).filename());
    // Its time on the processor, and how often it got there (proc(5)).
    const auto wakeUps = [&] {
        std::string line;
        std::ifstream stream(task + "/schedstat");
        std::getline(stream, line);
        return line;
    };
    const std::string before = wakeUps();
    ASSERT_NE(before, "");
    ky::kyThread::msleep(450);
    EXPECT_EQ(wakeUps(), before);

    const auto child = ky::test::RunInChild([&] {
        ::alarm(60);
        dog.setMonitoringEnabled(true);
        EXPECT_FALSE(dog.isMonitoringEnabled());
        dog.~MemoryWatchDog();
    });
    EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST_F(WatchDog, TracesEachTimeTheFlagIsSet)
{
    std::string texts;
    ky::kyLog* const log = ky::kyLog::Instance();
    log->setLogLevel(ky::kyLogLevel::All);
    log->installCustomHandler(
        [](std::list<ky::kyLog::LogEntry>& batch, void* into) {
            for (const ky::kyLog::LogEntry& entry : batch)
                static_cast<std::string*>(into)->append(entry.message + "\n");
        },
        &texts);
    {
        MemoryWatchDog dog("net", 1536UL << 10, 1);
        dog.setMonitoringEnabled(false);
        dog.setMonitoringEnabled(false);
    }
    log->installCustomHandler(nullptr, nullptr);
    EXPECT_EQ(texts,
              "Memory watchdog 'net' : start with a threshold of 1.5TB\n"
              "Memory watchdog 'net' : stop\nMemory watchdog 'net' : stop\n");
}

TEST(HighResTimer, MeasuresFromStartToStop)
{
    kyHighResTimer timer;
    kyHighResTimer whole;
    whole.start();
    timer.stop();
    EXPECT_EQ(timer.getElapsedTimeInMicroSec(), 0.0);
    timer.start();
    EXPECT_TRUE(timer.isRunning());
    ky::kyThread::msleep(3);
    // A little less than was slept: the clocks of the two may be adjusted.
    EXPECT_GE(timer.getElapsedTimeInMilliSec(), 2.9);
    timer.start();
    timer.stop();
    EXPECT_LE(timer.getElapsedTimeInMilliSec(), whole.getElapsedTimeInMilliSec() - 2.9);
    const double stopped = timer.getElapsedTimeInMicroSec();
    ky::kyThread::msleep(1);
    timer.stop();
    EXPECT_EQ(timer.getElapsedTimeInMicroSec(), stopped);
    EXPECT_DOUBLE_EQ(timer.getElapsedTimeInSec(), stopped / 1e6);
    timer.clearTimer();
    EXPECT_EQ(timer.getElapsedTimeInMicroSec(), 0.0);
}

TEST(PowerStatus, IsUnknownAndNeverChanges)
{
    for (const long refreshMs : {1000L, 0L, -1L}) {
        ky::kyPowerStatusReader reader(refreshMs);
        EXPECT_FALSE(reader.updatePowerStatusReader(true));
        ky::kyPowerStatus other;
        EXPECT_EQ(other.source, 2u);
        EXPECT_EQ(other.chargePercent, 101u);
        EXPECT_TRUE(reader.getPowerStatus() == other);
        other.chargePercent = 100;
        EXPECT_TRUE(reader.getPowerStatus() != other);
    }
}

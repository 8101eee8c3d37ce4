#include "ky/kyLog.h"

#include "support/Library.h"
#include "support/Logged.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <ctime>

using ky::kyLog;
using ky::kyLogObject;
using ky::test::Texts;
using Interval = ky::kyLog::TimeRotationInterval;
using Files = std::map<std::string, Texts>;
namespace fs = std::filesystem;

namespace {

Texts MessagesIn(const fs::path& path)
{
    return ky::test::Messages(ky::test::Content(path));
}

Files FilesIn(const fs::path& folder)
{
    Files files;
    for (const auto& entry : fs::directory_iterator(folder))
        files[entry.path().filename()] = MessagesIn(entry);
    return files;
}

void Log(const std::string& message)
{
    kyLogObject(kyLog::Info) << message;
}

/// A line of the local time `time`, "2031-12-31 23:59:59".
void LogAt(const std::string& time, const std::string& message)
{
    std::tm fields = {};
    ASSERT_NE(::strptime(time.c_str(), "%F %T", &fields), nullptr);
    fields.tm_isdst = -1;
    kyLog::LogEntry entry;
    entry.level = kyLog::Info;
    entry.message = message;
    entry.timeMs = static_cast<unsigned long>(std::mktime(&fields)) * 1000 + 999;
    kyLog::Instance()->Write(entry, false);
}

/// Every message of all files, which carry numbers from 1 on, once.
void ExpectNumbers(const Files& files, int count)
{
    std::map<int, int> found;
    for (const auto& [name, messages] : files)
        for (const std::string& message : messages)
            EXPECT_EQ(++found[std::atoi(message.c_str())], 1) << message;
    EXPECT_EQ(found.size(), static_cast<std::size_t>(count));
    EXPECT_EQ(found.rbegin()->first, count);
}

/// Files in a fresh folder.
struct LogFile : ky::test::LightLibrary {
    bool install(unsigned int options = 0, unsigned int count = 0, unsigned long size = 0,
                 Interval interval = Interval::None)
    {
        return log.installFileHandlerExUtf8(folder.path("logs"), "app.log", options, count, size,
                                            interval, &error);
    }

    const ky::test::TemporaryFolder folder;
    const fs::path logs = folder.path("logs");
    const fs::path current = logs / "app.log";
    kyLog& log = *kyLog::Instance();
    std::string error = "before";
};

}  // namespace

TEST_F(LogFile, GoesOnInAFileOrReplacesItAndEndsATornLine)
{
    fs::create_directory(logs);
    std::ofstream(current) << "INFO : whole\nINFO : torn by a ki";
    EXPECT_TRUE(log.installFileHandlerUtf8(current, &error));
    EXPECT_EQ(error, "");
    ky::test::CaughtStream out(std::cout);
    Log("next");
    // kept: installing a file turns the echo off.
    EXPECT_EQ(out.take(), "");
    EXPECT_TRUE(install(kyLog::FileAppend | kyLog::FileEchoToConsole));
    Log("echoed");
    EXPECT_NE(out.take(), "");
    EXPECT_TRUE(install(kyLog::FileShared));
    EXPECT_EQ(MessagesIn(current), (Texts{"whole", "torn by a ki", "next", "echoed"}));
    EXPECT_TRUE(install());
    Log("alone");
    log.removeFileHandler();
    Log("nowhere");
    EXPECT_EQ(MessagesIn(current), Texts{"alone"});
}

TEST_F(LogFile, KeepsEveryFileWithinItsSizeAndTheTotalWithinItsCount)
{
    ASSERT_TRUE(install(0, 3, 1024));
    fs::permissions(current, fs::perms(0640));
    std::ofstream(logs / "app_2026-01-01-00-00-00x.log") << "INFO : is not ours\n";
    for (int i = 1; i <= 30; ++i) {
        LogAt("2031-05-06 07:08:09", std::string(300, 'x'));
        ASSERT_LE(fs::file_size(current), 1024u);
    }
    LogAt("2031-05-06 07:08:10", std::string(2000000, 'y'));
    LogAt("2031-05-06 07:08:10", "last");
    EXPECT_EQ(FilesIn(logs),
              (Files{{"app_2026-01-01-00-00-00x.log", {"is not ours"}},
                     {"app.log", {"last"}},
                     {"app_2031-05-06-07-08-10.log", Texts(2, std::string(300, 'x'))},
                     {"app_2031-05-06-07-08-10-1.log", {std::string(2000000, 'y')}}}));
    EXPECT_EQ(fs::status(current).permissions(), fs::perms(0640));
}

TEST(LogFileByTime, PutsEveryDayWeekAndMonthIntoAFileOfItsName)
{
    const struct {
        const char* zone;
        Interval interval;
        std::vector<std::pair<std::string, Texts>> files;
    } rows[] = {
        // The nights in which the hour changes, one of 23 hours and one of 25. The last is late.
        {"Europe/Berlin",
         Interval::Daily,
         {{"app_2031-03-29.log", {"2031-03-29 23:30:00"}},
          {"app_2031-03-30.log", {"2031-03-30 23:59:59"}},
          {"app_2031-10-26.log", {"2031-10-26 00:00:00", "2031-10-26 23:59:59"}},
          {"app.log", {"2032-01-01 00:00:00", "2031-12-31 23:59:58"}}}},
        // Weeks begin on Sunday, and a year with a week of its own.
        {"UTC",
         Interval::Weekly,
         {{"app_2031-W51.log", {"2031-12-27 23:59:59"}},
          {"app_2031-W52.log", {"2031-12-31 23:59:59"}},
          {"app_2032-W00.log", {"2032-01-01 00:00:00"}},
          {"app.log", {"2032-01-04 00:00:00"}}}},
        {"UTC",
         Interval::Monthly,
         {{"app_2031-02.log", {"2031-02-01 00:00:00", "2031-02-28 23:59:59"}},
          {"app_2031-03.log", {"2031-03-01 00:00:00"}},
          {"app.log", {"2032-01-01 00:00:00"}}}},
    };
    for (int i = 0; i < 6; ++i) {
        const auto& row = rows[i / 2];
        SCOPED_TRACE(row.files[0].first);
        ky::test::ExpectChildPasses([&] {
            ::setenv("TZ", row.zone, 1);
            // With a thread of its own, the log has many lines to write at once.
            ky::initializeKySystem(i % 2 == 0 ? ky::InitType::Light : ky::InitType::Full, false);
            const ky::test::TemporaryFolder folder;
            for (const auto& [name, times] : row.files)
                for (const std::string& time : times) {
                    // A new start finds the file's period in the file.
                    if (name == row.files[0].first || name == row.files[1].first)
                        kyLog::Instance()->installFileHandlerExUtf8(
                            folder.path(""), "app.log", kyLog::FileAppend, 0, 0, row.interval);
                    LogAt(time, time);
                }
            kyLog::Instance()->flush();
            EXPECT_EQ(FilesIn(folder.path("")), Files(row.files.begin(), row.files.end()));
            ky::terminateKySystem();
        });
    }
}

TEST_F(LogFile, FollowsItsPathAndKeepsTheOldFileUntilThereIsANewOne)
{
    const fs::path aside = folder.path("aside");
    ASSERT_TRUE(install());
    Log("before");
    ky::test::CaughtStream err(std::cerr);
    const std::function<void()> obstacles[] = {
        [&] { fs::create_directory(current); },
        [&] { fs::create_symlink(folder.path("elsewhere"), current); },
        [&] { ASSERT_EQ(::mkfifo(current.c_str(), 0600), 0); },
    };
    for (const auto& obstruct : obstacles) {
        fs::rename(current, aside);
        obstruct();
        Log("old");
        EXPECT_EQ(MessagesIn(aside).back(), "old");
        fs::remove(current);
        Log("new");
        EXPECT_EQ(MessagesIn(current), Texts{"new"});
    }
    EXPECT_FALSE(fs::exists(folder.path("elsewhere")));
    // One a minute.
    EXPECT_EQ(ky::test::Messages(err.take()),
              Texts{"Fail to initialize log file '" + current.string() +
                    "' error was : " + ky::test::ErrorText(EISDIR)});
    fs::resize_file(current, 0);  // as logrotate does with copytruncate
    Log("after");
    EXPECT_EQ(MessagesIn(current), Texts{"after"});
}

TEST(LogFileOnAFullDisk, LosesLinesAndCountsThemAndGoesOn)
{
    const ky::test::TemporaryFolder folder;
    const auto result = ky::test::RunInChild([&] {
        // The default action of SIGXFSZ would end the process.
        const auto limitFiles = [](rlim_t bytes) {
            const rlimit limit = {bytes, RLIM_INFINITY};
            ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
        };
        limitFiles(4000);
        ky::initializeKySystem(ky::InitType::Light, false);
        kyLog& log = *kyLog::Instance();
        ASSERT_TRUE(
            log.installFileHandlerExUtf8(folder.path(""), "app.log", 0, 1, 5000, Interval::None));
        for (int i = 1; i <= 100; ++i)
            Log(std::to_string(i) + std::string(60, 'x'));
        // Files that are full of lines do not give way to empty ones.
        limitFiles(0);
        Log(std::string(3000, 'x'));
        EXPECT_EQ(FilesIn(folder.path("")).size(), 1u);
        limitFiles(RLIM_INFINITY);
        const unsigned long lost = log.getLostLineCount();
        Log("after");
        const Texts messages = MessagesIn(folder.path("app.log"));
        // The torn one counts as lost.
        ASSERT_EQ(messages.size() - 3 + lost, 101u);
        EXPECT_EQ(messages[messages.size() - 2], "Log file '" + folder.path("app.log") + "' lost " +
                                                     std::to_string(lost) + " lines");
        ky::terminateKySystem();
    });
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_TRUE(ky::test::Contains(result.err, "error was : System error : '(27) EFBIG"));
}

TEST_F(LogFile, RefusesWhatCannotBeALogFileAndSaysWhy)
{
    const std::string blocked = folder.write("blocked", "a file");
    const std::string home = folder.path("");
    ASSERT_EQ(::mkfifo((home + "pipe").c_str(), 0600), 0);
    const auto expectRefused = [&](const std::string& in, const std::string& name,
                                   const std::string& beginning, unsigned long size = 0) {
        ASSERT_TRUE(install());
        EXPECT_FALSE(log.installFileHandlerExUtf8(in, name, 0, 0, size, Interval::None, &error));
        EXPECT_EQ(error.find(beginning), 0u) << error;
        EXPECT_EQ(log.getCurrentLogFileNameUtf8(), "") << "the earlier file is closed anyway";
    };
    const std::string refused = "Fail to install log file handler to '" + home;
    expectRefused(blocked, "x", "Fail to create log folder '" + blocked + "' error was : ");
    expectRefused(std::string("a\0b", 3), "x", "Fail to create log folder '");
    expectRefused("/", "proc", "Fail to initialize log file '/proc' error was : ");
    expectRefused(home, "pipe", "Fail to initialize log file '");
    expectRefused(home, "..", refused + "..' error was : ");
    expectRefused(home, "x", refused, 1023);
    expectRefused(home, std::string(250, 'n'), refused, 1024);
}

TEST(SharedLogFile, GetsEveryLineOfEveryProcessWhole)
{
    const ky::test::TemporaryFolder folder;
    std::vector<std::jthread> processes;
    for (int process = 0; process < 4; ++process)
        processes.emplace_back([&, process] {
            std::string input;
            for (int i = 1; i <= 2000; ++i)
                input += std::to_string(process * 2000 + i) + "\n";
            const auto result =
                ky::test::RunCommand({KY_COMMAND, "log", "--quiet", "--shared", "--max-size",
                                      "20000", "--file", folder.path("app.log")},
                                     input);
            EXPECT_EQ(result.exitCode, 0) << result.err;
        });
    processes.clear();
    ExpectNumbers(FilesIn(folder.path("")), 8000);
}

TEST_F(LogFile, IsSharedWithAForkedChild)
{
    ASSERT_TRUE(install(0, 0, 1024));
    for (int i = 1; i <= 30; ++i) {
        Log(std::to_string(i) + std::string(100, ' '));
        if (i % 10 == 0)
            ky::test::ExpectChildPasses([&] {
                for (int own = 1; own <= 10; ++own)
                    Log(std::to_string(20 + i + own) + std::string(100, ' '));
            });
    }
    ExpectNumbers(FilesIn(logs), 60);
}

TEST_F(LogFile, LosesNothingBetweenTwoFilesAndTwoHandlers)
{
    log.makeThreadSafe();
    std::atomic<int> count = 0;
    ASSERT_TRUE(install(0, 0, 1024));
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 3; ++thread)
        threads.emplace_back([&](const std::stop_token& stop) {
            // With a wait now and then, or each installation has a full queue to write first.
            for (int own = 1; !stop.stop_requested(); ++own)
                kyLogObject(kyLog::Info).setFlushNow(own % 20 == 0) << ++count;
        });
    for (int i = 1; i <= 15; ++i) {
        for (const int before = count; count < before + 100;)
            std::this_thread::yield();
        ASSERT_TRUE(log.installFileHandlerExUtf8(logs, std::to_string(i % 2), kyLog::FileAppend, 0,
                                                 1024, Interval::None));
        const std::string number = std::to_string(++count);
        // Freed with its content looked at while others log on: no call of the handler is left.
        ky::test::Recorder recorder;
        recorder.install();
        Log(number);
        log.installCustomHandler(nullptr, nullptr);
        EXPECT_EQ(std::count(recorder.messages.begin(), recorder.messages.end(), number), 1);
    }
    threads.clear();
    log.flush();
    ExpectNumbers(FilesIn(logs), count);
    for (const auto& entry : fs::directory_iterator(logs))
        EXPECT_LE(entry.file_size(), 1024u);
}

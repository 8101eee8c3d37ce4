#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include "support/Child.h"
#include "support/Library.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <ctime>

using ky::kyLog;
using ky::kyLogObject;
using Interval = ky::kyLog::TimeRotationInterval;
using Messages = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

/// What stands behind the prefixes, line by line.
Messages MessagesIn(const fs::path& path)
{
    Messages messages = ky::test::Lines(ky::test::Content(path));
    for (std::string& line : messages)
        line.erase(0, line.find(" : ") + 3);
    return messages;
}

std::map<std::string, Messages> FilesIn(const fs::path& folder)
{
    std::map<std::string, Messages> files;
    for (const auto& entry : fs::directory_iterator(folder))
        files[entry.path().filename()] = MessagesIn(entry);
    return files;
}

void Log(const std::string& message)
{
    kyLogObject(kyLog::Info) << message;
}

/// A line of the local time `time`, "2031-12-31 23:59:59".
void LogAt(const char* time, const std::string& message)
{
    std::tm fields = {};
    ASSERT_NE(::strptime(time, "%Y-%m-%d %H:%M:%S", &fields), nullptr);
    fields.tm_isdst = -1;
    kyLog::LogEntry entry;
    entry.level = kyLog::Info;
    entry.message = message;
    entry.timeMs = static_cast<unsigned long>(std::mktime(&fields)) * 1000 + 999;
    kyLog::Instance()->Write(entry, false);
}

/// Every message of all files, which carry numbers from 1 on, once.
void ExpectNumbers(const std::map<std::string, Messages>& files, int count)
{
    std::vector<int> found;
    for (const auto& [name, messages] : files)
        for (const std::string& message : messages)
            found.push_back(std::atoi(message.c_str()));
    std::sort(found.begin(), found.end());
    std::vector<int> expected(static_cast<std::size_t>(count));
    std::iota(expected.begin(), expected.end(), 1);
    EXPECT_EQ(found, expected);
}

/// Files in a fresh folder, at the level of `Library`.
template <typename Library>
struct LogFileAt : Library {
    LogFileAt() { ::umask(022); }

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

using LogFile = LogFileAt<ky::test::LightLibrary>;
using LogFileAtWork = LogFileAt<ky::test::FullLibrary>;

}  // namespace

TEST_F(LogFile, GoesOnInAFileOrReplacesItAndEndsATornLine)
{
    fs::create_directory(logs);
    std::ofstream(current) << "INFO : whole\nINFO : torn by a ki";
    EXPECT_TRUE(log.installFileHandlerUtf8(current, &error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(log.getCurrentLogFileNameUtf8(), current);
    ky::test::CaughtStream out(std::cout);
    Log("next");
    EXPECT_EQ(out.take(), "") << "installing a file turns the echo off";
    EXPECT_TRUE(install(kyLog::FileAppend | kyLog::FileEchoToConsole));
    Log("echoed");
    EXPECT_NE(out.take(), "");
    EXPECT_EQ(MessagesIn(current), (Messages{"whole", "torn by a ki", "next", "echoed"}));
    EXPECT_TRUE(install(kyLog::FileShared));
    EXPECT_TRUE(install());
    Log("alone");
    log.removeFileHandler();
    Log("nowhere");
    EXPECT_EQ(log.getCurrentLogFileNameUtf8(), "");
    EXPECT_EQ(MessagesIn(current), Messages{"alone"});
    EXPECT_EQ(out.take(), "");
}

TEST_F(LogFile, KeepsEveryFileWithinItsSizeAndTheTotalWithinItsCount)
{
    ASSERT_TRUE(install(0, 3, 1024));
    fs::permissions(current, fs::perms(0640));
    std::ofstream(logs / "app_2026-01-01-00-00-00x.log") << "INFO : 0 is not ours\n";
    for (int i = 1; i <= 100; ++i) {
        LogAt("2031-05-06 07:08:09", std::to_string(i) + " " + std::string(300, 'x'));
        ASSERT_LE(fs::file_size(current), 1024u);
    }
    LogAt("2031-05-06 07:08:10", "101 " + std::string(2000000, 'y'));
    LogAt("2031-05-06 07:08:10", "102");
    auto files = FilesIn(logs);
    ASSERT_EQ(files.size(), 4u);
    EXPECT_EQ(files.count("app_2026-01-01-00-00-00x.log"), 1u);
    EXPECT_EQ(files["app.log"], Messages{"102"});
    EXPECT_EQ(files["app_2031-05-06-07-08-10.log"].size(), 2u);
    EXPECT_EQ(files["app_2031-05-06-07-08-10-1.log"].at(0).size(), 2000004u)
        << "too long, but whole";
    EXPECT_EQ(fs::status(current).permissions(), fs::perms(0640));

    fs::remove_all(logs);
    ASSERT_TRUE(install(0, 0, 1024));
    for (int i = 1; i <= 40; ++i)
        Log(std::to_string(i) + " " + std::string(900, 'z'));
    files = FilesIn(logs);
    EXPECT_EQ(files.size(), 40u) << "rotations of one second must not overwrite each other";
    ExpectNumbers(files, 40);
}

TEST(LogFileByTime, PutsEveryDayWeekAndMonthIntoAFileOfItsName)
{
    struct Line {
        const char* time;
        const char* file;  // null for the current one
    };
    struct Row {
        const char* zone;
        Interval interval;
        std::vector<Line> lines;
    };
    const std::vector<Row> rows = {
        // The nights in which the hour changes, one of 23 hours and one of 25.
        {"Europe/Berlin",
         Interval::Daily,
         {{"2031-03-29 23:30:00", "app_2031-03-29.log"},
          {"2031-03-30 23:59:59", "app_2031-03-30.log"},
          {"2031-10-26 00:00:00", "app_2031-10-26.log"},
          {"2031-10-26 23:59:59", "app_2031-10-26.log"},
          {"2032-01-01 00:00:00", nullptr},
          {"2031-12-31 23:59:58", nullptr}}},  // late
        // Midnight itself is left out or comes twice.
        {"XXX5YYY,M3.2.0/0,M11.1.0/0",
         Interval::Daily,
         {{"2031-03-08 23:59:59", "app_2031-03-08.log"},
          {"2031-03-09 01:00:00", "app_2031-03-09.log"},
          {"2031-11-01 22:00:00", "app_2031-11-01.log"},
          {"2031-11-02 12:00:00", nullptr}}},
        // Weeks begin on Sunday, and a year with a week of its own.
        {"UTC",
         Interval::Weekly,
         {{"2031-12-27 23:59:59", "app_2031-W51.log"},
          {"2031-12-31 23:59:59", "app_2031-W52.log"},
          {"2032-01-01 00:00:00", "app_2032-W00.log"},
          {"2032-01-04 00:00:00", nullptr}}},
        {"UTC",
         Interval::Monthly,
         {{"2031-02-01 00:00:00", "app_2031-02.log"},
          {"2031-02-28 23:59:59", "app_2031-02.log"},
          {"2031-03-01 00:00:00", "app_2031-03.log"},
          {"2032-01-01 00:00:00", nullptr}}},
        // A clock that is set back by a day and more: the name is taken the second time.
        {"UTC",
         Interval::Daily,
         {{"2031-05-05 10:00:00", "app_2031-05-05.log"},
          {"2031-05-06 10:00:00", "app_2031-05-06.log"},
          {"2031-05-06 02:00:00", "app_2031-05-06.log"},
          {"2031-05-04 09:00:00", "app_2031-05-04.log"},
          {"2031-05-05 01:00:00", "app_2031-05-05-1.log"},
          {"2031-05-06 01:00:00", nullptr}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.zone) + " " + row.lines[0].time);
        ky::test::ExpectChildPasses([&] {
            ::setenv("TZ", row.zone, 1);
            ::tzset();
            ky::initializeKySystem(ky::InitType::Light, false);
            const ky::test::TemporaryFolder folder;
            const auto install = [&] {
                ASSERT_TRUE(kyLog::Instance()->installFileHandlerExUtf8(
                    folder.path(""), "app.log", kyLog::FileAppend, 0, 0, row.interval));
            };
            install();
            std::map<std::string, Messages> expected;
            for (const Line& line : row.lines) {
                LogAt(line.time, line.time);
                expected[line.file != nullptr ? line.file : "app.log"].emplace_back(line.time);
                // A new start finds the file's period in the file, unless the clock goes backwards.
                if (&line == &row.lines[1])
                    install();
            }
            EXPECT_EQ(FilesIn(folder.path("")), expected);
            ky::terminateKySystem();
        });
    }
}

TEST_F(LogFile, KnowsThePeriodOfAFileThatOthersHaveRemovedOrTruncated)
{
    const auto logOn = [](const std::string& day) { LogAt((day + " 12:00:00").c_str(), day); };
    ASSERT_TRUE(install(0, 0, 0, Interval::Daily));
    logOn("2031-05-05");
    fs::remove(current);
    logOn("2031-05-05");
    logOn("2031-05-06");
    fs::resize_file(current, 0);
    logOn("2031-05-07");
    logOn("2031-05-07");
    logOn("2031-05-08");
    EXPECT_EQ(FilesIn(logs),
              (std::map<std::string, Messages>{{"app_2031-05-05.log", {"2031-05-05"}},
                                               {"app_2031-05-07.log", {"2031-05-07", "2031-05-07"}},
                                               {"app.log", {"2031-05-08"}}}));
}

TEST_F(LogFile, FollowsItsPathAndKeepsTheOldFileUntilThereIsANewOne)
{
    const fs::path aside = folder.path("aside");
    ASSERT_TRUE(install());
    Log("before");
    ky::test::CaughtStream err(std::cerr);
    int number = 0;
    const std::vector<std::function<void()>> obstacles = {
        [&] { fs::create_directory(current); },
        [&] { fs::create_symlink(folder.path("elsewhere"), current); },
        [&] { ASSERT_EQ(::mkfifo(current.c_str(), 0600), 0); },
    };
    for (const auto& obstruct : obstacles) {
        fs::rename(current, aside);
        obstruct();
        Log(std::to_string(++number));
        EXPECT_EQ(MessagesIn(aside).back(), std::to_string(number));
        fs::remove(current);
        Log(std::to_string(++number));
        EXPECT_EQ(MessagesIn(current), Messages{std::to_string(number)});
    }
    EXPECT_FALSE(fs::exists(folder.path("elsewhere")));
    const auto reports = ky::test::Lines(err.take());
    ASSERT_EQ(reports.size(), 1u) << "one a minute";
    EXPECT_NE(
        reports[0].find("Fail to initialize log file '" + current.string() + "' error was : "),
        std::string::npos);
    fs::resize_file(current, 0);  // as logrotate does with copytruncate
    Log("after");
    EXPECT_EQ(MessagesIn(current), Messages{"after"});
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
        EXPECT_EQ(FilesIn(folder.path("")).size(), 1u) << "full files gave way to empty ones";
        const unsigned long lost = log.getLostLineCount();
        EXPECT_GT(lost, 0u);
        limitFiles(RLIM_INFINITY);
        Log("after");
        EXPECT_EQ(log.getLostLineCount(), lost);
        const Messages messages = MessagesIn(folder.path("app.log"));
        ASSERT_GE(messages.size(), 2u);
        EXPECT_EQ(messages.back(), "after");
        EXPECT_EQ(messages[messages.size() - 2], "Log file '" + folder.path("app.log") + "' lost " +
                                                     std::to_string(lost) + " lines");
        // The torn one counts as lost.
        EXPECT_EQ(messages.size() - 3 + lost, 100u);
        ky::terminateKySystem();
    });
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_EQ(ky::test::Lines(result.err).size(), 1u) << result.err;
    EXPECT_NE(result.err.find("error was : System error : '(27) EFBIG"), std::string::npos);
}

TEST_F(LogFile, RefusesWhatCannotBeALogFileAndSaysWhy)
{
    const std::string blocked = folder.write("blocked", "a file");
    ASSERT_EQ(::mkfifo(folder.path("pipe").c_str(), 0600), 0);
    const std::string home = folder.path("");
    const char* const noFolder = "Fail to create log folder '";
    const char* const noFile = "Fail to initialize log file '";
    const char* const refused = "Fail to install log file handler to '";
    const struct {
        std::string folder;
        std::string name;
        unsigned int options;
        unsigned long size;
        int interval;
        std::string beginning;
    } rows[] = {
        {blocked, "x", 0, 0, 0, noFolder + blocked + "' error was : "},
        {std::string("a\0b", 3), "x", 0, 0, 0, noFolder},
        {folder.path("no\xff"), "x", 0, 0, 0, noFolder},
        {"/", "proc", 0, 0, 0, noFile + std::string("/proc' error was : ")},
        {home, "pipe", 0, 0, 0, noFile},
        {home, "", 0, 0, 0, refused},
        {home, "..", 0, 0, 0, refused},
        {home, "a/b", 0, 0, 0, refused},
        {home, "x", 8, 0, 0, refused},
        {home, "x", 0, 1023, 0, refused},
        {home, "x", 0, 1ul << 63, 0, refused},
        {home, std::string(250, 'n'), 0, 1024, 0, refused},
        {home, "x", 0, 0, 4, refused},
        {home, "x", 0, 0, -1, refused},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.folder + "/" + row.name);
        ASSERT_TRUE(install());
        EXPECT_FALSE(log.installFileHandlerExUtf8(row.folder, row.name, row.options, 0, row.size,
                                                  static_cast<Interval>(row.interval), &error));
        EXPECT_TRUE(error.starts_with(row.beginning)) << error;
        EXPECT_EQ(log.getCurrentLogFileNameUtf8(), "") << "the earlier file is closed anyway";
    }
}

TEST(SharedLogFile, GetsEveryLineOfEveryProcessWhole)
{
    constexpr int processes = 4;
    constexpr int linesOfEach = 2000;
    const ky::test::TemporaryFolder folder;
    {
        std::vector<std::jthread> waiting;
        for (int process = 0; process < processes; ++process)
            waiting.emplace_back([&, process] {
                std::string input;
                for (int i = 1; i <= linesOfEach; ++i)
                    input += std::to_string(process * linesOfEach + i) + "\n";
                const auto result =
                    ky::test::RunCommand({KY_COMMAND, "log", "--quiet", "--shared", "--max-size",
                                          "20000", "--file", folder.path("app.log")},
                                         input);
                EXPECT_EQ(result.exitCode, 0) << result.err;
            });
    }
    const auto files = FilesIn(folder.path(""));
    EXPECT_GT(files.size(), 10u);
    ExpectNumbers(files, processes * linesOfEach);
    for (const auto& [name, messages] : files)
        EXPECT_LE(fs::file_size(folder.path(name)), 20000u);
}

TEST_F(LogFileAtWork, SplitsABatchByDaysAndSizes)
{
    ASSERT_TRUE(install(0, 0, 4096, Interval::Daily));
    const std::vector<std::string> days = {"2031-05-05", "2031-05-06", "2031-05-07"};
    std::map<std::string, Messages> expected;
    for (const std::string& day : days)
        for (int i = 0; i < 20; ++i) {
            LogAt((day + " 12:00:00").c_str(), day);
            expected[day == days.back() ? "app.log" : "app_" + day + ".log"].push_back(day);
        }
    log.flush();
    EXPECT_EQ(FilesIn(logs), expected);
    for (int i = 0; i < 2000; ++i)
        LogAt("2031-05-07 12:00:00", std::string(100, 'x'));
    log.flush();
    for (const auto& entry : fs::directory_iterator(logs))
        EXPECT_LE(entry.file_size(), 4096u);
}

TEST_F(LogFileAtWork, LosesNothingBetweenTwoFiles)
{
    std::atomic<int> count = 0;
    ASSERT_TRUE(log.installFileHandlerUtf8(logs / "0.log"));
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 3; ++thread)
        threads.emplace_back([&](const std::stop_token& stop) {
            // With a wait now and then, or each installation has a full queue to write first.
            for (int own = 1; !stop.stop_requested(); ++own)
                kyLogObject(kyLog::Info).setFlushNow(own % 20 == 0) << ++count;
        });
    for (int i = 1; i <= 30; ++i) {
        for (const int before = count; count < before + 100;)
            std::this_thread::yield();
        ASSERT_TRUE(log.installFileHandlerUtf8(logs / (std::to_string(i % 2) + ".log")));
    }
    threads.clear();
    log.flush();
    ExpectNumbers(FilesIn(logs), count);
}

TEST_F(LogFile, IsSharedWithAForkedChild)
{
    ASSERT_TRUE(install(0, 0, 1024));
    for (int i = 1; i <= 30; ++i) {
        Log(std::to_string(i) + std::string(100, ' '));
        if (i % 10 != 0)
            continue;
        ky::test::ExpectChildPasses([&] {
            for (int own = 1; own <= 10; ++own)
                Log(std::to_string(20 + i + own) + std::string(100, ' '));
        });
    }
    ExpectNumbers(FilesIn(logs), 60);
}

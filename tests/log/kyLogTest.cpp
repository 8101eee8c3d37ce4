#include "ky/kyLog.h"

#include "support/Library.h"
#include "support/Logged.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>

using ky::kyLog;
using ky::kyLogLevel;
using ky::kyLogObject;
using ky::test::CaughtStream;
using ky::test::Recorder;
using ky::test::Texts;

namespace {

struct Log : ky::test::LightLibrary {
    /// What `insert` puts into one message.
    std::string message(const std::function<void(kyLogObject&)>& insert)
    {
        {
            kyLogObject object(kyLog::Info);
            insert(object);
        }
        return ky::test::Messages(out.take()).at(0);
    }

    CaughtStream out{std::cout};
    kyLog& log = *kyLog::Instance();
};

}  // namespace

TEST(LogLine, TellsLevelSubTypeProcessThreadAndTheTimeInTheZoneOfTheInitialisation)
{
    CaughtStream out(std::cout);
    const auto written = [&](const char* zone, kyLog::LogEntry entry) {
        ::setenv("TZ", zone, 1);
        ky::initializeKySystem(ky::InitType::Light, false);
        kyLog::LogEntry before;
        kyLog::Instance()->Write(before, false);
        out.take();
        kyLog::Instance()->Write(entry, false);
        ky::terminateKySystem();
        return out.take();
    };
    const std::string pid = " PID " + std::to_string(::getpid()) + " ";
    EXPECT_EQ(written("XXX-1", {"x", "net", "", "old", "42", 1709647387999, kyLog::Warning}),
              "WARNING(net)" + pid + "TID 42 Tue Mar 05 15:03:07+0100 2024 : x\n");
    EXPECT_EQ(written("YYY+10", {"", "", "", "", "", 1709647387000, 7}),
              "UNKNOWN" + pid + "Tue Mar 05 04:03:07-1000 2024 : \n");
    ::unsetenv("TZ");
}

TEST_F(Log, EnablesTheLevelsBelowInfoByVerbosity)
{
    const std::string tid = " TID " + std::to_string(::gettid()) + " ";
    const std::pair<int, std::string> rows[] = {
        {0, "012345"}, {1, "02345"}, {2, "345"}, {9, "345"}};
    for (const auto& [verbosity, expected] : rows) {
        SCOPED_TRACE(verbosity);
        log.setLogLevel(static_cast<kyLogLevel>(verbosity));
        EXPECT_EQ(static_cast<int>(log.getLogLevel()), std::min(verbosity, 2));
        for (int level = kyLog::Dev; level <= kyLog::Suppressed; ++level)
            kyLogObject(level) << level;
        std::string written;
        for (const std::string& line : ky::test::Lines(out.take())) {
            written += line.back();
            EXPECT_EQ(ky::test::Contains(line, tid), verbosity < 2) << line;
        }
        EXPECT_EQ(written, expected);
    }
}

TEST_F(Log, WritesWhatWasInsertedBeItEmptyAndNothingForNothing)
{
    log.setLogLevel(kyLogLevel::All);
    errno = 133;
    kyLogObject(kyLog::Critical, "a", nullptr).setFlushNow();
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(message([](auto& o) { o << ""; }), "");
    EXPECT_EQ(
        message([](auto& o) { o << static_cast<const char*>(nullptr) << ky::SystemError(2); }),
        "[NullPtr]" + ky::test::ErrorText(2));
    EXPECT_EQ(message([](auto& o) { o << std::string("a\0b", 3) << std::string_view("\xff"); }),
              std::string("a\0b\xff", 4));
    EXPECT_EQ(message([](auto& o) { o << 1.0 / 3 << ' ' << 1234567.0F << true << -5 << ~0UL; }),
              "0.333333 1.23457e+061-518446744073709551615");
    EXPECT_EQ(errno, 133);
}

TEST_F(Log, DropsDebugEntriesOfDisabledSubTypesFromTheConsoleOnly)
{
    const auto written = [this](int level, const char* subType) {
        kyLogObject(level, subType) << "x";
        return !out.take().empty();
    };
    log.setLogLevel(kyLogLevel::All);
    log.setSubTypeEnabled("net, disk;\tcpu |a\\b/c  ", false);
    EXPECT_FALSE(written(kyLog::Debug, "net") || written(kyLog::Debug, "c"));
    EXPECT_TRUE(written(kyLog::Debug, nullptr)) << "an empty name between separators counted";
    EXPECT_TRUE(written(kyLog::Trace, "net"));
    Recorder recorder;
    recorder.install();
    EXPECT_FALSE(written(kyLog::Debug, "disk"));
    EXPECT_EQ(recorder.messages, Texts{"x"});
    log.setSubTypeEnabled({" net\n"}, true);
    EXPECT_TRUE(written(kyLog::Debug, "net"));
}

TEST_F(Log, SurvivesAStreamBufferThatLogsAndThrows)
{
    struct Buffer : std::streambuf {
        std::streamsize xsputn(const char* text, std::streamsize size) override
        {
            kyLogObject(kyLog::Info) << std::string_view(text, static_cast<std::size_t>(size));
            throw std::runtime_error("full");
        }
    } buffer;
    std::streambuf* const caught = std::cout.rdbuf(&buffer);
    std::cout.exceptions(std::ios::badbit);
    std::cout.setstate(std::ios::failbit);
    kyLogObject(kyLog::Info) << "lost";
    EXPECT_EQ(std::cout.rdstate(), std::ios::failbit) << "the host's own state was changed";
    EXPECT_EQ(std::cout.exceptions(), std::ios::badbit);
    std::cout.exceptions(std::ios::goodbit);
    std::cout.rdbuf(caught);
    EXPECT_EQ(message([](auto& o) { o << "back"; }), "back");
}

TEST(LogWithoutInstance, GoesToStandardOutputOrWithANameToStandardError)
{
    CaughtStream out(std::cout);
    CaughtStream err(std::cerr);
    kyLogObject(kyLog::Debug, nullptr, "ky-test") << "never";
    kyLogObject(kyLog::Critical, nullptr, "ky-test") << "to standard error";
    const std::string line = err.take();
    EXPECT_TRUE(line.starts_with("ky-test : CRITICAL PID ")) << line;
    EXPECT_TRUE(line.ends_with(" : to standard error\n")) << line;
    kyLogObject(kyLog::Critical, nullptr, "ky-test") << std::string(20000, '\x80');
    EXPECT_EQ(err.take().size(), 16384 + 1u);
    kyLog::LogEntry entry;
    entry.message = std::string(16381, 'a') + "\xf0\x9f\x98\x80";
    kyLog::WriteToSystemLog(entry, true);
    EXPECT_EQ(err.take().size(), 16381 + 1u) << "cut within a code point";

    ky::initializeKySystem(ky::InitType::Light, false);
    {
        kyLogObject object(kyLog::Info);
        object << "outlives the log";
        ky::terminateKySystem();
    }
    EXPECT_EQ(ky::test::Messages(out.take()), Texts{"outlives the log"});
}

TEST(LogConsole, LosesNoLineToSignalsSlowReadersAndWideStreams)
{
    const std::pair<const char*, void (*)()> rows[] = {
        {"non-blocking",
         [] { ::fcntl(STDOUT_FILENO, F_SETFL, ::fcntl(STDOUT_FILENO, F_GETFL) | O_NONBLOCK); }},
        {"wide", [] { std::wcout << L"wide" << std::endl; }},
        {"interrupted",
         [] {
             struct sigaction action = {};
             action.sa_handler = [](int) {};
             ::sigaction(SIGALRM, &action, nullptr);
             ::ualarm(100, 100);
         }},
        {"failed before", [] { std::cout.setstate(std::ios::badbit); }}};
    for (const auto& [name, prepare] : rows) {
        SCOPED_TRACE(name);
        ky::test::ExpectChildPasses([&] {
            int ends[2];
            ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
            ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
            ::dup2(ends[1], STDOUT_FILENO);
            ::close(ends[1]);
            long letters = 0;
            std::thread reader([&] {
                char buffer[1000];
                for (ssize_t size = 0; (size = ::read(ends[0], buffer, sizeof buffer)) != 0;)
                    letters += std::count(buffer, buffer + std::max<ssize_t>(size, 0), 'x');
            });
            prepare();
            ky::initializeKySystem(ky::InitType::Light, false);
            for (int i = 0; i < 1000; ++i)
                kyLogObject(kyLog::Info) << std::string(500, 'x');
            ky::terminateKySystem();
            ::close(STDOUT_FILENO);
            reader.join();
            EXPECT_EQ(letters, 500000);
        });
    }
}

TEST_F(Log, IsNotTornApartByThreadCancellation)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer takes the unwound stack of a cancelled thread for misused";
#endif
    Recorder recorder([](ky::test::Batch&) { ::pthread_testcancel(); });
    recorder.install();
    bool isWhole = false;
    std::thread([&] {
        ::pthread_cancel(::pthread_self());
        kyLogObject(kyLog::Info) << "x";
        isWhole = true;
    }).join();
    EXPECT_TRUE(isWhole);
}

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include "support/Asleep.h"
#include "support/DaemonSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>
#include <clocale>
#include <cstdlib>

using ky::kyLog;
using ky::kyLogObject;
using ky::test::DaemonSocket;

namespace {

void LogLongLines(int count)
{
    for (int i = 0; i < count; ++i)
        kyLogObject(kyLog::Info, nullptr, "stuck") << std::string(16000, 'x');
}

void ExpectWithSystemLog(const std::function<void(DaemonSocket&)>& body)
{
    ky::test::ExpectPassesWithDaemon("/dev/log", body);
}

}  // namespace

TEST(SystemLog, ReceivesNamedEntriesWithTheirPriority)
{
    ExpectWithSystemLog([](DaemonSocket& socket) {
        ky::initializeKySystem(ky::InitType::Light, false);
        kyLog::Instance()->setLogLevel(ky::kyLogLevel::All);
        const struct {
            int level;
            const char* start;
        } rows[] = {{kyLog::Dev, "<14>"},
                    {kyLog::Warning, "<12>"},
                    {kyLog::Critical, "<10>"},
                    {42, "<14>"}};
        for (const auto& row : rows) {
            kyLogObject(row.level, "net", "daemon") << "100 %s and %n";
            const std::string datagram = socket.receive();
            EXPECT_TRUE(datagram.starts_with(row.start)) << datagram;
            EXPECT_NE(datagram.find(": daemon : "), std::string::npos) << datagram;
            EXPECT_TRUE(datagram.ends_with(" : 100 %s and %n")) << datagram;
        }
        kyLogObject(kyLog::Debug, nullptr, "daemon") << "never";
        kyLogObject(kyLog::Critical) << "without a name";
        EXPECT_EQ(socket.receive(), "");
        ky::terminateKySystem();
        kyLogObject(kyLog::Critical, nullptr, "late") << "without an instance";
        EXPECT_TRUE(socket.receive().ends_with(" : without an instance"));
    });
}

TEST(SystemLog, IsNeverTakenForAStandardStream)
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        ExpectWithSystemLog([fd](DaemonSocket& socket) {
            ::close(fd);
            ky::initializeKySystem(ky::InitType::Light, false);
            kyLogObject(kyLog::Warning, nullptr, "app") << "named";
            kyLogObject(kyLog::Warning) << "console only";
            EXPECT_TRUE(socket.receive().ends_with(" : named"));
            EXPECT_EQ(socket.receive(), "");
            EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
            ky::terminateKySystem();
        });
}

TEST(SystemLog, IsReachedFromAChildForkedWhileItWasBusy)
{
    ExpectWithSystemLog([](DaemonSocket& socket) {
        ky::initializeKySystem(ky::InitType::Light, false);
        // The daemon does not read, so that a thread gets stuck inside syslog(3).
        ky::test::StartUntilAsleep([] { LogLongLines(1000); }).detach();
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(60);
            while (!socket.receive().empty()) {
            }
            kyLogObject(kyLog::Critical, nullptr, "child") << "alive";
            std::string last;
            for (std::string next = "x"; !next.empty() && !last.ends_with(" : alive");)
                last = next = socket.receive();
            ::_exit(last.starts_with("<10>") ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    });
}

TEST(SystemLog, IsLeftByAThreadThatASignalInterruptsThere)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has handlers of its own";
#endif
    ExpectWithSystemLog([](DaemonSocket& socket) {
        ::alarm(60);
        ky::initializeKySystem(ky::InitType::Full, false);
        kyLog::Instance()->setEchoToConsole(false);
        std::atomic<bool> isDone = false;
        // Nobody reads: it sleeps inside syslog(3). SIGURG is reported and the process goes on.
        std::thread stuck = ky::test::StartUntilAsleep([&] {
            LogLongLines(50);
            isDone = true;
        });
        ::pthread_kill(stuck.native_handle(), SIGURG);
        std::size_t lines = 0;
        while (!isDone)
            lines += socket.receive().find(": kySystem : CRITICAL PID ") != std::string::npos;
        stuck.join();
        ky::terminateKySystem();
        // A burst of more lines than the daemon's queue takes at once.
        EXPECT_GT(lines, 12u);
    });
}

TEST(SystemLog, ReceivesLocalTextAndRawBytesWhereThatFails)
{
    ExpectWithSystemLog([](DaemonSocket& socket) {
        // Codeset from the environment, transliteration from the locale of the process.
        ::setenv("LC_ALL", "C", 1);
        std::setlocale(LC_ALL, "C");
        ky::initializeKySystem(ky::InitType::Light, false);
        kyLogObject(kyLog::Info, nullptr, "n") << "caf\xc3\xa9";
        EXPECT_TRUE(socket.receive().ends_with(" : caf?"));
        kyLogObject(kyLog::Info, nullptr, "n") << "raw \xff bytes";
        EXPECT_TRUE(socket.receive().ends_with(" : raw \xff bytes"));
        kyLogObject(kyLog::Info, nullptr, "n") << std::string(20000, 'x');
        const std::string cut = socket.receive();
        EXPECT_EQ(cut.size() - cut.find("n : INFO"), 16384u);
        ky::terminateKySystem();
    });
}

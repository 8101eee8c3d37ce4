#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include "support/Asleep.h"
#include "support/Crashes.h"
#include "support/DaemonSocket.h"

#include <atomic>
#include <csignal>
#include <thread>

#include <clocale>
#include <cstdlib>

using ky::kyLog;
using ky::kyLogObject;
using ky::test::DaemonSocket;

namespace {

void ExpectWithSystemLog(const std::function<void(DaemonSocket&)>& body)
{
    ky::test::ExpectPassesWithDaemon("/dev/log", [&](DaemonSocket& socket) {
        ::setenv("LC_ALL", "C", 1);
        std::setlocale(LC_ALL, "C");
        ::alarm(60);
        ky::initializeKySystem(ky::InitType::Light, false);
        kyLog::Instance()->setEchoToConsole(false);
        body(socket);
        ky::terminateKySystem();
    });
}

/// Gets stuck inside syslog(3) while nobody reads.
void LogLongLines(int count)
{
    for (int i = 0; i < count; ++i)
        kyLogObject(kyLog::Info, nullptr, "stuck") << std::string(16000, 'x');
}

}  // namespace

TEST(SystemLog, ReceivesNamedEntriesWithTheirPriorityAsLocalText)
{
    ExpectWithSystemLog([](DaemonSocket& socket) {
        kyLog::Instance()->setLogLevel(ky::kyLogLevel::All);
        const struct {
            int level;
            const char* message;
            const char* start;
            const char* end;
        } rows[] = {{kyLog::Dev, "100 %s and %n", "<14>", " : 100 %s and %n"},
                    {kyLog::Warning, "caf\xc3\xa9", "<12>", " : caf?"},
                    {kyLog::Critical, "raw \xff bytes", "<10>", " : raw \xff bytes"}};
        for (const auto& row : rows) {
            kyLogObject(row.level, "net", "daemon") << row.message;
            const std::string datagram = socket.receive();
            EXPECT_TRUE(datagram.starts_with(row.start)) << datagram;
            EXPECT_TRUE(ky::test::Contains(datagram, ": daemon : ")) << datagram;
            EXPECT_TRUE(datagram.ends_with(row.end)) << datagram;
        }
        kyLogObject(kyLog::Debug, nullptr, "daemon") << "never";
        kyLogObject(kyLog::Critical) << "without a name";
        EXPECT_EQ(socket.receive(), "");
    });
}

TEST(SystemLog, IsNeverTakenForAStandardStream)
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        ExpectWithSystemLog([fd](DaemonSocket& socket) {
            ::close(fd);
            kyLogObject(kyLog::Warning, nullptr, "app") << "named";
            EXPECT_TRUE(socket.receive().ends_with(" : named"));
            EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
        });
}

TEST(SystemLog, IsReachedFromAChildForkedWhileItWasBusy)
{
    ExpectWithSystemLog([](DaemonSocket& socket) {
        ky::test::StartUntilAsleep([] { LogLongLines(1000); }).detach();
        ky::test::ExpectChildPasses([&] {
            ::alarm(60);
            // Somebody has to read, because the parent fills the daemon's queue again and again.
            const pid_t writer = ky::test::Fork([] {
                ::alarm(60);
                kyLogObject(kyLog::Critical, nullptr, "child") << "alive";
            });
            std::string next;
            while (!next.ends_with(" : alive"))
                next = socket.receive();
            EXPECT_TRUE(next.starts_with("<10>"));
            EXPECT_EQ(ky::test::EndOf(writer), 0);
        });
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    });
}

TEST(SystemLog, IsLeftByAThreadThatASignalInterruptsThere)
{
    SKIP_UNDER_SANITIZERS();
    ExpectWithSystemLog([](DaemonSocket& socket) {
        ky::initializeKySystem(ky::InitType::Full, false);
        std::atomic<bool> isDone = false;
        std::thread stuck = ky::test::StartUntilAsleep([&] {
            LogLongLines(50);
            isDone = true;
        });
        // SIGURG is reported and the process goes on.
        ::pthread_kill(stuck.native_handle(), SIGURG);
        std::size_t lines = 0;
        while (!isDone)
            lines += ky::test::Contains(socket.receive(), ": kySystem : CRITICAL PID ");
        stuck.join();
        ky::terminateKySystem();
        // A burst of more lines than the daemon's queue takes at once.
        EXPECT_GT(lines, 12u);
    });
}

#include "ky/kyLog.h"
#include "ky/kySystem.h"
#include "ky/kyThread.h"

#include "support/Asleep.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <clocale>
#include <cstdlib>

using ky::kyLog;
using ky::kyLogObject;

namespace {

constexpr int sNotAllowed = 77;

/// A system log daemon at "/dev/log", in a mount namespace that only this process sees.
class SystemLogSocket {
public:
    SystemLogSocket()
    {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            ::_exit(sNotAllowed);
        mSocket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address = {AF_UNIX, "/dev/log"};
        if (::bind(mSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            ::_exit(sNotAllowed);
    }
    ~SystemLogSocket() { ::close(mSocket); }
    SystemLogSocket(const SystemLogSocket&) = delete;
    SystemLogSocket& operator=(const SystemLogSocket&) = delete;

    /// The next message, empty when there is none: syslog(3) has sent it before it returns.
    std::string receive() const
    {
        std::string datagram(70000, '\0');
        const ssize_t size = ::recv(mSocket, datagram.data(), datagram.size(), 0);
        datagram.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return datagram;
    }

private:
    int mSocket;
};

void ExpectInOwnNamespace(const std::function<void(SystemLogSocket&)>& body)
{
    const auto result = ky::test::RunInChild([&] {
        SystemLogSocket socket;
        body(socket);
    });
    if (result.exitCode == sNotAllowed)
        GTEST_SKIP() << "a mount namespace is not allowed here";
    EXPECT_EQ(result.exitCode, 0) << result.err << result.out;
}

bool Contains(const std::string& text, const std::string& what)
{
    return text.find(what) != std::string::npos;
}

bool Ends(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

TEST(SystemLog, ReceivesNamedEntriesWithTheirPriority)
{
    ExpectInOwnNamespace([](SystemLogSocket& socket) {
        ky::initializeKySystem(ky::InitType::Light, false);
        kyLog::Instance()->setLogLevel(ky::kyLogLevel::All);
        const struct {
            int level;
            const char* start;
        } rows[] = {{kyLog::Dev, "<14>"},     {kyLog::Trace, "<14>"},    {kyLog::Info, "<14>"},
                    {kyLog::Warning, "<12>"}, {kyLog::Critical, "<10>"}, {42, "<14>"}};
        for (const auto& row : rows) {
            kyLogObject(row.level, "net", "daemon") << "100 %s and %n";
            const std::string datagram = socket.receive();
            EXPECT_EQ(datagram.find(row.start), 0u) << datagram;
            EXPECT_NE(datagram.find(": daemon : "), std::string::npos) << datagram;
            EXPECT_NE(datagram.find("(net) PID "), std::string::npos) << datagram;
            EXPECT_TRUE(Ends(datagram, " : 100 %s and %n")) << datagram;
        }
        kyLogObject(kyLog::Debug, nullptr, "daemon") << "never";
        kyLogObject(kyLog::Critical) << "without a name";
        EXPECT_EQ(socket.receive(), "");
        ky::terminateKySystem();
        kyLogObject(kyLog::Critical, nullptr, "late") << "without an instance";
        EXPECT_TRUE(Ends(socket.receive(), " : without an instance"));
    });
}

TEST(SystemLog, IsNeverTakenForAStandardStream)
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        ExpectInOwnNamespace([fd](SystemLogSocket& socket) {
            ::close(fd);
            ky::initializeKySystem(ky::InitType::Light, false);
            kyLogObject(kyLog::Warning, nullptr, "app") << "named";
            kyLogObject(kyLog::Warning) << "console only";
            EXPECT_TRUE(Ends(socket.receive(), " : named"));
            EXPECT_EQ(socket.receive(), "");
            EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
            ky::terminateKySystem();
        });
}

TEST(SystemLog, IsReachedFromAChildForkedWhileItWasBusy)
{
    ExpectInOwnNamespace([](SystemLogSocket& socket) {
        ky::initializeKySystem(ky::InitType::Light, false);
        // The daemon does not read, so that a thread gets stuck inside syslog(3).
        std::promise<std::string> id;
        std::thread stuck([&] {
            id.set_value(ky::kyThread::CurrentThreadId());
            for (int i = 0; i < 1000; ++i)
                kyLogObject(kyLog::Info, nullptr, "stuck") << std::string(16000, 'x');
        });
        ky::test::WaitUntilAsleep(id.get_future().get());
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(60);
            while (!socket.receive().empty()) {
            }
            kyLogObject(kyLog::Critical, nullptr, "child") << "alive";
            for (std::string last = socket.receive(); !last.empty(); last = socket.receive())
                if (Ends(last, " : alive"))
                    ::_exit(last.compare(0, 4, "<10>") == 0 ? 0 : 2);
            ::_exit(1);
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
    ExpectInOwnNamespace([](SystemLogSocket& socket) {
        ::alarm(60);
        ky::initializeKySystem(ky::InitType::Full, false);
        kyLog::Instance()->setEchoToConsole(false);
        std::atomic<bool> isDone = false;
        std::promise<std::string> id;
        std::thread stuck([&] {
            id.set_value(ky::kyThread::CurrentThreadId());
            for (int i = 0; i < 50; ++i)
                kyLogObject(kyLog::Info, nullptr, "stuck") << std::string(16000, 'x');
            isDone = true;
        });
        // Nobody reads: it sleeps inside syslog(3). SIGURG is reported and the process goes on.
        ky::test::WaitUntilAsleep(id.get_future().get());
        ::pthread_kill(stuck.native_handle(), SIGURG);
        std::size_t lines = 0;
        while (!isDone)
            lines += Contains(socket.receive(), ": kySystem : CRITICAL PID ") ? 1 : 0;
        stuck.join();
        ky::terminateKySystem();
        // A burst of more lines than the daemon's queue takes at once.
        EXPECT_GT(lines, 12u);
    });
}

TEST(SystemLog, ReceivesLocalTextAndRawBytesWhereThatFails)
{
    ExpectInOwnNamespace([](SystemLogSocket& socket) {
        // Codeset from the environment, transliteration from the locale of the process.
        ::setenv("LC_ALL", "C", 1);
        std::setlocale(LC_ALL, "C");
        ky::initializeKySystem(ky::InitType::Light, false);
        kyLogObject(kyLog::Info, nullptr, "n") << "caf\xc3\xa9";
        EXPECT_TRUE(Ends(socket.receive(), " : caf?"));
        kyLogObject(kyLog::Info, nullptr, "n") << "raw \xff bytes";
        EXPECT_TRUE(Ends(socket.receive(), " : raw \xff bytes"));
        kyLogObject(kyLog::Info, nullptr, "n") << std::string(20000, 'x');
        const std::string cut = socket.receive();
        EXPECT_EQ(cut.size() - cut.find("n : INFO"), 16384u);
        ky::terminateKySystem();
    });
}

#include "ky/kyNamedPipe.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/FailingCall.h"
#include "support/Library.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <tuple>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>

namespace fs = std::filesystem;
using ky::kyNamedPipe;
using ky::kyNamedPipeServer;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int sSoonMs = 20'000;  // a bound for what comes at once

struct NamedPipe : ky::test::LightLibrary {
    NamedPipe()
    {
        setTemporaryFolder(folder.path(""));
        ky::kyLog::Instance()->setEchoToConsole(false);
        ky::kyLog::Instance()->installCustomHandler(&NamedPipe::Note, &logged);
    }
    ~NamedPipe() override { setTemporaryFolder(before); }

    static void Note(std::list<ky::kyLog::LogEntry>& batch, void* logged)
    {
        for (const auto& entry : batch)
            *static_cast<std::string*>(logged) += std::to_string(entry.level) + entry.message;
    }
    static void setTemporaryFolder(const std::string& path)
    {
        if (path.empty())
            ::unsetenv("TMPDIR");
        else
            ::setenv("TMPDIR", path.c_str(), 1);
    }

    /// The server's end of a new connection.
    kyNamedPipe& connect()
    {
        EXPECT_TRUE(server.getSocket() >= 0 || server.listenUtf8("n\u00e4me"));
        EXPECT_TRUE(client.connectToNamedPipeServerUtf8("n\u00e4me"));
        EXPECT_TRUE(server.waitForNewConnection(sSoonMs, nullptr));
        return *server.editClients().back();
    }

    const std::string before = std::getenv("TMPDIR") != nullptr ? std::getenv("TMPDIR") : "";
    const ky::test::TemporaryFolder folder;
    std::string logged;
    kyNamedPipeServer server;
    kyNamedPipe client;
};

/// The lowest number that is free: higher when something was left open.
int FreeDescriptor()
{
    const int fd = ::dup(STDERR_FILENO);
    ::close(fd);
    return fd;
}

void Put(kyNamedPipe& pipe, const std::string& text)
{
    pipe.appendToWriteBuffer(text.data(), text.size());
    pipe.processNamedPipeEvents(0, false);
}

std::string Take(kyNamedPipe& pipe)
{
    const std::string text(pipe.editReadBuffer().begin(), pipe.editReadBuffer().end());
    pipe.editReadBuffer().clear();
    return text;
}

/// A thousand signals a second, without SA_RESTART, until `period` is 0.
void SendAlarms(int periodUs)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval timer = {{0, periodUs}, {0, periodUs}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

const std::string sBindFailure = "5Fail to bind on kyNamedPipeServer::listenUtf8";
const std::string sTooLong = ", name is too long";

}  // namespace

TEST_F(NamedPipe, TellsWhyItCannotListenAndRemovesNothingForIt)
{
    const std::string cut = folder.write("cut", "here");
    const std::string raw = folder.write("\xff", "here");
    fs::create_directory(folder.path("folder"));
    const std::string longest(106 - folder.path("").size() - 1, 'x');
    const int free = FreeDescriptor();
    for (const auto& [name, error, text] :
         {std::tuple(std::string(), EINVAL,
                     std::string("5Socket name is empty in kyNamedPipeServer::listenUtf8")),
          std::tuple(longest + "x", ENAMETOOLONG,
                     "5Fail to create socket on kyNamedPipeServer::listenUtf8" + sTooLong),
          std::tuple(std::string("folder"), EADDRINUSE, sBindFailure),
          std::tuple(std::string("none/x"), ENOENT, sBindFailure),
          std::tuple(std::string("cut\0", 4), ENOENT, sBindFailure),
          std::tuple(std::string("\xff"), ENOENT, sBindFailure)}) {
        SCOPED_TRACE(name);
        logged.clear();
        EXPECT_FALSE(server.listenUtf8(name));
        EXPECT_EQ(errno, error);
        EXPECT_EQ(logged, text);
        EXPECT_FALSE(client.connectToNamedPipeServerUtf8(name));
    }
    EXPECT_TRUE(fs::exists(cut) && fs::exists(raw) && fs::exists(folder.path("folder")));
    setTemporaryFolder("/\xff");
    EXPECT_FALSE(server.listenUtf8("cannot be in the root"));
    EXPECT_FALSE(client.connectToNamedPipeServerUtf8("cannot be in the root"));
    setTemporaryFolder(folder.path(""));
    EXPECT_EQ(FreeDescriptor(), free);

    EXPECT_TRUE(server.listenUtf8(longest));
    EXPECT_TRUE(client.connectToNamedPipeServerUtf8(longest));
    logged.clear();
    EXPECT_FALSE(server.listenUtf8("other"));
    EXPECT_FALSE(kyNamedPipe().connectToNamedPipeServerUtf8(longest + "x"));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(logged,
              "5Cannot listen twice in kyNamedPipeServer::listenUtf8"
              "5Fail to create socket on kyNamedPipe::connectToNamedPipeServerUtf8" +
                  sTooLong);
}

TEST_F(NamedPipe, TellsWhichCallHasFailedAndLeavesNoSocket)
{
    for (const auto& [call, text] :
         {std::pair(SYS_socket,
                    "5Cannot open socket in kyNamedPipeServer::listenUtf8, socket() "
                    "returned INVALID_SOCKET"),
          std::pair(SYS_listen,
                    "5Cannot listen to socket in kyNamedPipeServer::listenUtf8, "
                    "listen() returned SOCKET_ERROR"),
          std::pair(SYS_fcntl,
                    "5Failed to set socket as non-blocking in "
                    "kyNamedPipeServer::listenUtf8, SetNonBlocking returned code 12")})
        ky::test::ExpectChildPasses([&, failing = call, expected = text] {
            const int free = FreeDescriptor();
            ky::test::LetCallFail(failing, ENOMEM);
            EXPECT_FALSE(server.listenUtf8("name"));
            EXPECT_EQ(errno, ENOMEM);
            EXPECT_EQ(logged, expected);
            EXPECT_EQ(FreeDescriptor(), free);
        });
    ky::test::ExpectChildPasses([&] {
        ASSERT_TRUE(server.listenUtf8("name"));
        const int free = FreeDescriptor();
        ky::test::LetCallFail(SYS_connect, EINPROGRESS);
        EXPECT_FALSE(client.connectToNamedPipeServerUtf8("name")) << "it was never connected";
        EXPECT_EQ(FreeDescriptor(), free);
    });
    ky::test::ExpectChildPasses([&] {
        kyNamedPipe& accepted = connect();
        ky::test::LetCallFail(SYS_poll, ENOMEM);
        accepted.processNamedPipeEvents(-1, true);
        EXPECT_FALSE(accepted.isConnected());
        EXPECT_FALSE(server.processPipeServerEvents(-1));
        EXPECT_EQ(server.getSocket(), -1);
    });
}

TEST_F(NamedPipe, TakesANameOverFromWhateverHasIt)
{
    folder.write("n\u00e4me", "kept: a file that is no socket goes, too");
    ::umask(077);
    kyNamedPipe& accepted = connect();
    ::umask(022);
    struct stat file = {};
    EXPECT_EQ(::stat(folder.path("n\u00e4me").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0700u);
    EXPECT_TRUE(client.connectToNamedPipeServerUtf8("none")) << "connected already";
    EXPECT_EQ(client.getNameUtf8() + accepted.getNameUtf8(), "n\u00e4men\u00e4me");

    kyNamedPipeServer successor;
    EXPECT_TRUE(successor.listenUtf8("n\u00e4me"));
    server.closeNamedPipeServer();
    kyNamedPipe other;
    EXPECT_TRUE(other.connectToNamedPipeServerUtf8("n\u00e4me"));
    EXPECT_TRUE(successor.processPipeServerEvents(sSoonMs));
    EXPECT_EQ(successor.editClients().size(), 1u);
    Put(client, "still there");
    accepted.processNamedPipeEvents(sSoonMs, true);
    EXPECT_EQ(Take(accepted), "still there");
    for (const int fd : {successor.getSocket(), accepted.getSocket(), client.getSocket()}) {
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    }

    successor.closeNamedPipeServer();
    for (const int error : {ECONNREFUSED, ENOENT}) {
        EXPECT_FALSE(kyNamedPipe().connectToNamedPipeServerUtf8("n\u00e4me"));
        EXPECT_EQ(errno, error);
        fs::remove(folder.path("n\u00e4me"));
    }
    EXPECT_TRUE(successor.listenUtf8("n\u00e4me"));
}

TEST_F(NamedPipe, CarriesEveryByteToASlowReader)
{
    kyNamedPipe& accepted = connect();
    std::string all;
    for (int i = 0; all.size() < 1'000'000; ++i)
        all += std::to_string(i) + ' ';
    std::vector<char>& buffer = client.editWriteBuffer();
    buffer.assign(all.begin(), all.end());
    client.processNamedPipeEvents(0, false);
    client.processNamedPipeEvents(0, false);
    EXPECT_FALSE(client.hasWriteFailed());
    const std::size_t rest = client.getPendingWriteSize();
    EXPECT_LT(rest, all.size());
    EXPECT_GT(rest, all.size() / 2) << "the test needs more bytes than the system takes";
    Put(client, "in between,");
    buffer.insert(buffer.end(), 3, '!');
    ASSERT_EQ(client.editWriteBuffer().size(), rest + 14);
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.end() - 14, all.end() - std::ptrdiff_t(rest)));

    all += "in between,!!!";
    std::string received;
    for (int turn = 0; client.hasPendingWrite(); ++turn) {
        // As much as seven turns take away, so that a long rest comes about again and again.
        if (turn % 7 == 0 && all.size() < 8'000'000) {
            const std::string more = all.substr(all.size() / 2, 70'000);
            client.appendToWriteBuffer(more.data(), more.size());
            all += more;
        }
        // No wait while anything is pending, whatever is asked for.
        client.processNamedPipeEvents(-1, true);
        accepted.processNamedPipeEvents(0, true);
        EXPECT_LE(accepted.editReadBuffer().size(), 10240u);
        received += Take(accepted);
    }
    client.closeNamedPipe();
    bool isFull = false;
    while (!accepted.isReadChannelClosed()) {
        accepted.processNamedPipeEvents(0, false);
        accepted.processNamedPipeEvents(0, false);
        isFull |= accepted.editReadBuffer().size() == 10240;
        EXPECT_TRUE(!accepted.isReadChannelClosed() || accepted.editReadBuffer().size() < 10240);
        received += Take(accepted);
    }
    EXPECT_TRUE(isFull && received == all);
    accepted.processNamedPipeEvents(-1, true);
    EXPECT_TRUE(accepted.isConnected()) << "the peer's end closes nothing here";
}

TEST_F(NamedPipe, TellsThatThePeerIsGone)
{
    kyNamedPipe& accepted = connect();
    Put(accepted, "never read");
    client.closeNamedPipe();
    EXPECT_FALSE(client.isConnected());
    for (int i = 0; i < 2; ++i)
        accepted.processNamedPipeEvents(sSoonMs, true);
    EXPECT_TRUE(accepted.isReadChannelClosed()) << "by a reset, before the end";
    EXPECT_FALSE(accepted.isWriteChannelClosed());
    for (int i = 0; i < 2; ++i) {
        Put(accepted, "lost");
        EXPECT_TRUE(accepted.hasWriteFailed() && accepted.isWriteChannelClosed());
    }
    EXPECT_EQ(accepted.getPendingWriteSize(), 8u);

    // A new socket: nothing of the old one is left but the buffers.
    kyNamedPipe& next = connect();
    next.processNamedPipeEvents(0, false);
    EXPECT_FALSE(next.isReadChannelClosed());
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    accepted.setSocket(ends[0]);
    EXPECT_NE(::fcntl(ends[0], F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(accepted.isReadChannelClosed() || accepted.isWriteChannelClosed() ||
                 accepted.hasWriteFailed());
    next.setSocket(ends[1]);
    accepted.setSocket(accepted.getSocket());
    accepted.processNamedPipeEvents(0, false);  // blocking sockets block nobody
    next.processNamedPipeEvents(0, false);
    EXPECT_EQ(Take(next), "lostlost");
    client.processNamedPipeEvents(sSoonMs, true);
    EXPECT_TRUE(client.isReadChannelClosed()) << "the socket that was replaced is closed";

    client.closeNamedPipe();
    EXPECT_TRUE(client.connectToNamedPipeServerUtf8("n\u00e4me"));
    EXPECT_FALSE(client.isReadChannelClosed());
    ::close(ends[0]);
    accepted.processNamedPipeEvents(-1, true);
    EXPECT_FALSE(accepted.isConnected());
}

TEST_F(NamedPipe, WaitsOnlyAsLongAsItIsToldAndWhateverSignalsCome)
{
    kyNamedPipe& accepted = connect();
    SendAlarms(1000);
    bool timedOut = false;
    for (const int timeoutMs : {0, 50}) {
        const auto start = Clock::now();
        EXPECT_FALSE(server.waitForNewConnection(timeoutMs, &timedOut));
        EXPECT_TRUE(timedOut && server.processPipeServerEvents(timeoutMs));
        client.processNamedPipeEvents(timeoutMs, true);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(3 * timeoutMs));
        EXPECT_TRUE(client.isConnected());
    }
    for (const int noLimit : {-1, INT_MAX}) {
        std::thread waiting = ky::test::StartUntilAsleep(
            [&, timeoutMs = noLimit] { accepted.processNamedPipeEvents(timeoutMs, true); });
        Put(client, "x");
        waiting.join();
        client.processNamedPipeEvents(noLimit, false);
        EXPECT_EQ(Take(accepted), "x");
        waiting = ky::test::StartUntilAsleep([&, timeoutMs = noLimit] {
            EXPECT_TRUE(server.waitForNewConnection(timeoutMs, &timedOut) && !timedOut);
        });
        kyNamedPipe other;
        EXPECT_TRUE(other.connectToNamedPipeServerUtf8("n\u00e4me"));
        waiting.join();
    }
    client.editReadBuffer().push_back('x');
    client.processNamedPipeEvents(-1, true);
    ::shutdown(server.getSocket(), SHUT_RD);
    EXPECT_FALSE(server.processPipeServerEvents(-1));
    timedOut = false;
    EXPECT_FALSE(server.waitForNewConnection(-1, &timedOut));
    EXPECT_TRUE(timedOut);
    EXPECT_FALSE(server.processPipeServerEvents(-1));
    SendAlarms(0);
}

TEST_F(NamedPipe, ServesClientsThatComeAndGo)
{
    ASSERT_TRUE(server.listenUtf8("n\u00e4me"));
    const int free = FreeDescriptor();
    for (int turn = 0; turn < 40; ++turn) {
        std::list<kyNamedPipe> clients(10);
        for (kyNamedPipe& one : clients) {
            EXPECT_TRUE(one.connectToNamedPipeServerUtf8("n\u00e4me"));
            Put(one, std::to_string(turn));
        }
        EXPECT_TRUE(server.processPipeServerEvents(sSoonMs));
        EXPECT_EQ(server.editClients().size(), 10u);
        clients.resize(5);
        for (const auto& accepted : server.editClients()) {
            accepted->processNamedPipeEvents(sSoonMs, true);
            EXPECT_EQ(Take(*accepted), std::to_string(turn));
        }
        server.editClients().clear();
        clients.front().processNamedPipeEvents(sSoonMs, true);
        EXPECT_TRUE(clients.front().isReadChannelClosed());
    }
    EXPECT_EQ(FreeDescriptor(), free);
}

TEST_F(NamedPipe, TakesAnyDescriptorAndRestsWhileThereIsNone)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "without free descriptors the sanitizer takes readable memory for unreadable";
#endif
    ky::test::ExpectChildPasses([&] {
        const rlimit limit = {1500, 1500};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        std::vector<int> fillers;
        for (int fd = 0; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) != -1;)
            fillers.push_back(fd);
        for (int i = 0; i < 4; ++i, fillers.pop_back())
            ::close(fillers.back());
        kyNamedPipe& accepted = connect();
        EXPECT_GT(std::min({server.getSocket(), client.getSocket(), accepted.getSocket()}), 1024);
        Put(client, "high");
        accepted.processNamedPipeEvents(sSoonMs, true);
        EXPECT_EQ(Take(accepted), "high");

        kyNamedPipe other;
        ASSERT_TRUE(other.connectToNamedPipeServerUtf8("n\u00e4me"));
        const auto usedMs = [] {
            rusage usage = {};
            ::getrusage(RUSAGE_SELF, &usage);
            return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
                   (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
        };
        const auto start = Clock::now();
        const long usedBeforeMs = usedMs();
        EXPECT_TRUE(server.processPipeServerEvents(300));
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
        EXPECT_LT(usedMs() - usedBeforeMs, 150) << "the wait was spent trying";
        EXPECT_EQ(server.editClients().size(), 1u);
        std::thread waiting = ky::test::StartUntilAsleep(
            [&] { EXPECT_TRUE(server.waitForNewConnection(-1, nullptr)); });
        ::close(fillers.back());
        waiting.join();
        EXPECT_EQ(server.editClients().size(), 2u);
    });
}

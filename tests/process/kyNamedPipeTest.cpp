#include "ky/kyNamedPipe.h"

#include "process/ProcessSupport.h"
#include "support/FailingCall.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <cerrno>
#include <ctime>

using ky::kyNamedPipe;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int sSoonMs = 20'000;  // a bound for what comes at once

struct NamedPipe : ky::test::LightLibrary {
    NamedPipe() { ::setenv("TMPDIR", folder.path("").c_str(), 1); }
    ~NamedPipe() override { ::unsetenv("TMPDIR"); }

    void expectLogged(const std::string& text)
    {
        const std::string line = console.take();
        EXPECT_TRUE(line.starts_with("CRITICAL ") && line.ends_with(" : " + text + "\n")) << line;
    }
    /// The server's end of a new connection.
    kyNamedPipe& connect()
    {
        EXPECT_TRUE(server.getSocket() >= 0 || server.listenUtf8("n\u00e4me"));
        EXPECT_TRUE(client.connectToNamedPipeServerUtf8("n\u00e4me"));
        EXPECT_TRUE(server.waitForNewConnection(sSoonMs, nullptr));
        return *server.editClients().back();
    }

    const ky::test::TemporaryFolder folder;
    ky::test::CaughtStream console{std::cout};
    ky::kyNamedPipeServer server;
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

}  // namespace

TEST_F(NamedPipe, TellsWhyItCannotListenAndLeavesAndRemovesNothing)
{
    const std::string cut = folder.write("cut", "here");
    const std::string raw = folder.write("\xff", "here");
    const std::string longest(106 - folder.path("").size() - 1, 'x');
    const struct {
        std::string name;
        int error;
        const char* text = "Fail to bind on kyNamedPipeServer::listenUtf8";
        long failingCall = -1;
    } rows[] = {
        {"", EINVAL, "Socket name is empty in kyNamedPipeServer::listenUtf8"},
        {longest + "x", ENAMETOOLONG,
         "Fail to create socket on kyNamedPipeServer::listenUtf8, name is too long"},
        {{"cut\0", 4}, ENOENT},
        {"\xff", ENOENT},
        {"name", ENOMEM,
         "Cannot open socket in kyNamedPipeServer::listenUtf8, socket() returned INVALID_SOCKET",
         SYS_socket},
        {"name", ENOMEM,
         "Cannot listen to socket in kyNamedPipeServer::listenUtf8, listen() returned SOCKET_ERROR",
         SYS_listen},
        {"name", ENOMEM,
         "Failed to set socket as non-blocking in kyNamedPipeServer::listenUtf8, SetNonBlocking "
         "returned code 12",
         SYS_fcntl},
    };
    for (const auto& row : rows)
        ky::test::ExpectChildPasses([&] {
            const int free = FreeDescriptor();
            if (row.failingCall != -1)
                ky::test::LetCallFail(row.failingCall, row.error);
            EXPECT_FALSE(server.listenUtf8(row.name));
            EXPECT_EQ(errno, row.error);
            expectLogged(row.text);
            EXPECT_FALSE(client.connectToNamedPipeServerUtf8(row.name)) << row.name;
            EXPECT_EQ(FreeDescriptor(), free);
        });
    EXPECT_TRUE(std::filesystem::exists(cut) && std::filesystem::exists(raw));

    EXPECT_TRUE(server.listenUtf8(longest));
    EXPECT_FALSE(client.connectToNamedPipeServerUtf8(longest + "x"));
    expectLogged(
        "Fail to create socket on kyNamedPipe::connectToNamedPipeServerUtf8, name is too long");
    EXPECT_TRUE(client.connectToNamedPipeServerUtf8(longest));
    EXPECT_FALSE(server.listenUtf8("other"));
    expectLogged("Cannot listen twice in kyNamedPipeServer::listenUtf8");
    ::setenv("TMPDIR", "/\xff", 1);
    EXPECT_FALSE(ky::kyNamedPipeServer().listenUtf8("cannot be in the root"));
}

TEST_F(NamedPipe, TakesANameOverFromWhateverHasIt)
{
    folder.write("n\u00e4me", "kept: a file that is no socket goes, too");
    kyNamedPipe& accepted = connect();
    ky::kyNamedPipeServer successor;
    EXPECT_TRUE(successor.listenUtf8("n\u00e4me"));
    server.closeNamedPipeServer();
    const int free = FreeDescriptor();
    std::list<kyNamedPipe> others(10);
    for (kyNamedPipe& other : others)
        EXPECT_TRUE(other.connectToNamedPipeServerUtf8("n\u00e4me"));
    EXPECT_TRUE(successor.processPipeServerEvents(sSoonMs));
    EXPECT_EQ(successor.editClients().size(), 10u);
    successor.editClients().clear();
    others.clear();
    EXPECT_EQ(FreeDescriptor(), free);
    Put(client, "still there");
    accepted.processNamedPipeEvents(sSoonMs, true);
    EXPECT_EQ(Take(accepted), "still there");
    for (const int fd : {successor.getSocket(), accepted.getSocket(), client.getSocket()}) {
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST_F(NamedPipe, CarriesEveryByteToASlowReader)
{
    kyNamedPipe& accepted = connect();
    std::string all;
    for (int i = 0; all.size() < 1'000'000; ++i)
        all += std::to_string(i) + ' ';
    Put(client, all);
    client.processNamedPipeEvents(0, false);
    const std::size_t rest = client.getPendingWriteSize();
    EXPECT_GT(rest, all.size() / 2) << "the test needs more bytes than the system takes";
    Put(client, "in between");
    all += "in between";
    EXPECT_TRUE(std::ranges::equal(client.editWriteBuffer(), all.substr(all.size() - rest - 10)));
    client.processNamedPipeEvents(0, false);
    Put(client, "the end");
    all += "the end";

    std::string received;
    bool isFull = false;
    while (!accepted.isReadChannelClosed()) {
        // No wait while anything is pending, whatever is asked for.
        client.processNamedPipeEvents(-1, true);
        if (!client.hasPendingWrite())
            client.closeNamedPipe();
        for (int i = 0; i < 3; ++i)
            accepted.processNamedPipeEvents(0, false);
        EXPECT_LE(accepted.editReadBuffer().size(), 10240u);
        isFull |= accepted.editReadBuffer().size() == 10240;
        received += Take(accepted);
    }
    EXPECT_TRUE(isFull && received == all);
}

TEST_F(NamedPipe, TellsThatThePeerIsGone)
{
    connect();
    Put(client, "never read");
    server.editClients().clear();
    for (int i = 0; i < 2; ++i)
        client.processNamedPipeEvents(sSoonMs, true);
    EXPECT_TRUE(client.isReadChannelClosed()) << "by a reset, before the end";
    EXPECT_FALSE(client.isWriteChannelClosed());
    Put(client, "lost");
    EXPECT_TRUE(client.hasWriteFailed() && client.isWriteChannelClosed());
    EXPECT_TRUE(client.isConnected()) << "the peer's end closes nothing here";

    // A new socket: nothing of the old one is left but the buffers.
    client.closeNamedPipe();
    kyNamedPipe& next = connect();
    EXPECT_FALSE(client.isReadChannelClosed() || client.hasWriteFailed());
    client.processNamedPipeEvents(0, false);
    next.processNamedPipeEvents(sSoonMs, true);
    EXPECT_EQ(Take(next), "lost");
    ::close(client.getSocket());
    client.processNamedPipeEvents(-1, true);
    EXPECT_FALSE(client.isConnected());
}

TEST_F(NamedPipe, WaitsOnlyAsLongAsItIsToldAndWhateverSignalsCome)
{
    kyNamedPipe& accepted = connect();
    ky::test::SendAlarms(1000);
    bool timedOut = false;
    for (const int timeoutMs : {0, 50}) {
        const auto start = Clock::now();
        EXPECT_FALSE(server.waitForNewConnection(timeoutMs, &timedOut));
        EXPECT_TRUE(timedOut && server.processPipeServerEvents(timeoutMs));
        client.processNamedPipeEvents(timeoutMs, true);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(3 * timeoutMs));
    }
    std::thread waiting =
        ky::test::StartUntilAsleep([&] { accepted.processNamedPipeEvents(-1, true); });
    Put(client, "x");
    waiting.join();
    EXPECT_EQ(Take(accepted), "x");
    waiting = ky::test::StartUntilAsleep(
        [&] { EXPECT_TRUE(server.waitForNewConnection(-1, &timedOut) && !timedOut); });
    kyNamedPipe other;
    EXPECT_TRUE(other.connectToNamedPipeServerUtf8("n\u00e4me"));
    waiting.join();
    client.editReadBuffer().push_back('x');
    client.processNamedPipeEvents(-1, true);  // no wait: it is not idle
    ::shutdown(server.getSocket(), SHUT_RD);
    EXPECT_FALSE(server.processPipeServerEvents(0));
    ky::test::SendAlarms(0);
}

TEST_F(NamedPipe, TakesAnyDescriptorAndRestsWhileThereIsNone)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "without free descriptors the sanitizer takes readable memory for unreadable";
#endif
    ky::test::ExpectChildPasses([&] {
        const rlimit limit = {1500, 1500};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        while (::open("/dev/null", O_RDONLY | O_CLOEXEC) != -1) {
        }
        ::close_range(1496, 1499, 0);
        kyNamedPipe& accepted = connect();
        Put(client, "high");
        accepted.processNamedPipeEvents(sSoonMs, true);
        EXPECT_EQ(Take(accepted), "high");

        kyNamedPipe other;
        ASSERT_TRUE(other.connectToNamedPipeServerUtf8("n\u00e4me"));
        const auto start = Clock::now();
        const std::clock_t used = std::clock();
        EXPECT_TRUE(server.processPipeServerEvents(300));
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
        EXPECT_LT(std::clock() - used, CLOCKS_PER_SEC / 20) << "the wait was spent trying";
        std::thread waiting = ky::test::StartUntilAsleep(
            [&] { EXPECT_TRUE(server.waitForNewConnection(-1, nullptr)); });
        ::close_range(1400, 1401, 0);
        waiting.join();
        EXPECT_EQ(server.editClients().size(), 2u);
        ky::test::LetCallFail(SYS_poll, ENOMEM);
        EXPECT_FALSE(server.processPipeServerEvents(-1));
    });
}

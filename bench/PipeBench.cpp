// One gibibyte through a local pipe, and messages of 64 bytes that go there and back, each between
// two threads of this process.

#include "ky/kyNamedPipe.h"

#include <benchmark/benchmark.h>
#ifdef KY_HAVE_QT_NETWORK
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>
#endif

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

namespace {

constexpr std::size_t sTotalBytes = 1UL << 30;
constexpr std::size_t sPieceBytes = 65536;
constexpr std::size_t sMessageBytes = 64;
constexpr int sRoundTrips = 20'000;

std::string Name()
{
    return "ky-bench-pipe-" + std::to_string(::getpid());
}

void Require(bool isGood)
{
    if (!isGood)
        std::abort();
}

// Every kind of channel: `send` returns when all bytes have left it, `receive` when some have
// come, whose number it returns: 0 at the end.

class OurPair {
public:
    OurPair()
    {
        Require(mServer.listenUtf8(Name()));
        Require(mClient.connectToNamedPipeServerUtf8(Name()));
        Require(mServer.waitForNewConnection(1000, nullptr));
    }
    ky::kyNamedPipe& client() { return mClient; }
    ky::kyNamedPipe& server() { return *mServer.editClients().front(); }

    static void Send(ky::kyNamedPipe& pipe, const char* bytes, std::size_t size)
    {
        pipe.appendToWriteBuffer(bytes, size);
        pipe.processNamedPipeEvents(0, false);
        while (pipe.hasPendingWrite()) {
            ::pollfd descriptor = {pipe.getSocket(), POLLOUT, 0};
            ::poll(&descriptor, 1, -1);
            pipe.processNamedPipeEvents(0, false);
        }
    }
    static std::size_t Receive(ky::kyNamedPipe& pipe)
    {
        pipe.processNamedPipeEvents(-1, true);
        const std::size_t size = pipe.editReadBuffer().size();
        benchmark::DoNotOptimize(pipe.editReadBuffer().data());
        pipe.editReadBuffer().clear();
        return size;
    }
    template <typename Work>
    static std::thread Start(Work work)
    {
        return std::thread(work);
    }

private:
    ky::kyNamedPipeServer mServer;
    ky::kyNamedPipe mClient;
};

/// The limit: calls that are asked for readiness only where they have failed for want of it.
template <std::size_t blockBytes>
class BarePair {
public:
    BarePair() { Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, mSockets) == 0); }
    ~BarePair()
    {
        for (const int fd : mSockets)
            ::close(fd);
    }
    BarePair(const BarePair&) = delete;
    BarePair& operator=(const BarePair&) = delete;
    int client() const { return mSockets[0]; }
    int server() const { return mSockets[1]; }

    static void Send(int fd, const char* bytes, std::size_t size)
    {
        while (size > 0) {
            const ssize_t sent = ::send(fd, bytes, size, MSG_NOSIGNAL);
            if (sent < 0) {
                Wait(fd, POLLOUT);
                continue;
            }
            bytes += sent;
            size -= static_cast<std::size_t>(sent);
        }
    }
    static std::size_t Receive(int fd)
    {
        char block[blockBytes];
        ssize_t size = 0;
        while ((size = ::recv(fd, block, sizeof block, 0)) < 0)
            Wait(fd, POLLIN);
        benchmark::DoNotOptimize(block);
        return static_cast<std::size_t>(size);
    }
    template <typename Work>
    static std::thread Start(Work work)
    {
        return std::thread(work);
    }

private:
    static void Wait(int fd, short events)
    {
        Require(errno == EAGAIN);
        ::pollfd descriptor = {fd, events, 0};
        ::poll(&descriptor, 1, -1);
    }

    int mSockets[2];
};

#ifdef KY_HAVE_QT_NETWORK
/// The server's end is made over in its descriptor, because an object serves only the thread that
/// made it.
class QtPair {
public:
    QtPair() { Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, mSockets) == 0); }
    QtPair(const QtPair&) = delete;
    QtPair& operator=(const QtPair&) = delete;
    int client() const { return mSockets[0]; }
    int server() const { return mSockets[1]; }

    static QLocalSocket& Of(int fd)
    {
        thread_local QLocalSocket socket;
        if (socket.socketDescriptor() != fd)
            Require(socket.setSocketDescriptor(fd));
        return socket;
    }
    static void Send(int fd, const char* bytes, std::size_t size)
    {
        QLocalSocket& socket = Of(fd);
        socket.write(bytes, static_cast<qint64>(size));
        while (socket.bytesToWrite() > 0)
            socket.waitForBytesWritten(-1);
    }
    static std::size_t Receive(int fd)
    {
        QLocalSocket& socket = Of(fd);
        char block[sPieceBytes];
        if (socket.bytesAvailable() == 0)
            socket.waitForReadyRead(-1);
        return static_cast<std::size_t>(std::max<qint64>(0, socket.read(block, sizeof block)));
    }
    struct Thread {
        explicit Thread(QThread* made) : thread(made) { thread->start(); }
        void join() { thread->wait(); }
        const std::unique_ptr<QThread> thread;
    };
    template <typename Work>
    static Thread Start(Work work)
    {
        return Thread(QThread::create(work));
    }

private:
    int mSockets[2];
};
#endif

template <typename Pair>
void Gibibyte(benchmark::State& state)
{
    const std::vector<char> piece(sPieceBytes, 'x');
    for (auto _ : state) {
        Pair pair;
        auto sender = Pair::Start([&] {
            for (std::size_t sent = 0; sent < sTotalBytes; sent += piece.size())
                Pair::Send(pair.client(), piece.data(), piece.size());
            // Who made the channel's end may have to hear that all has come.
            Pair::Receive(pair.client());
        });
        auto receiver = Pair::Start([&] {
            for (std::size_t received = 0; received < sTotalBytes;)
                received += Pair::Receive(pair.server());
            Pair::Send(pair.server(), "e", 1);
        });
        sender.join();
        receiver.join();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * sTotalBytes));
}

template <typename Pair>
void RoundTrips(benchmark::State& state)
{
    const std::vector<char> message(sMessageBytes, 'x');
    const auto receiveWhole = [](auto& end) {
        for (std::size_t received = 0; received < sMessageBytes;)
            received += Pair::Receive(end);
    };
    for (auto _ : state) {
        Pair pair;
        const auto run = [&](auto&& end, bool isFirst) {
            for (int i = 0; i < sRoundTrips; ++i) {
                if (isFirst || i > 0)
                    Pair::Send(end, message.data(), message.size());
                receiveWhole(end);
            }
            if (!isFirst)
                Pair::Send(end, message.data(), message.size());
        };
        auto asker = Pair::Start([&] { run(pair.client(), true); });
        auto answerer = Pair::Start([&] { run(pair.server(), false); });
        asker.join();
        answerer.join();
    }
    state.counters["us_per_trip"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * sRoundTrips / 1e6,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

using BarePair64K = BarePair<65536>;
using BarePair10K = BarePair<10240>;

#define KY_PIPE_BENCHMARK(pair)          \
    BENCHMARK_TEMPLATE(Gibibyte, pair)   \
        ->Iterations(3)                  \
        ->UseRealTime()                  \
        ->Unit(benchmark::kMillisecond); \
    BENCHMARK_TEMPLATE(RoundTrips, pair) \
        ->Iterations(3)                  \
        ->UseRealTime()                  \
        ->Unit(benchmark::kMillisecond)

KY_PIPE_BENCHMARK(OurPair);
KY_PIPE_BENCHMARK(BarePair64K);
KY_PIPE_BENCHMARK(BarePair10K);
#ifdef KY_HAVE_QT_NETWORK
KY_PIPE_BENCHMARK(QtPair);
#endif

}  // namespace

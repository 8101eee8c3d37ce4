#include "Commands.h"
#include "LocalText.h"
#include "StandardStreams.h"

#include "ky/kyLog.h"
#include "ky/kyNamedPipe.h"
#include "ky/kySystem.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

namespace ky::tool {
namespace {

constexpr std::size_t sBlockBytes = 65536;

/// Joins standard input and output to a pipe.
class Joint {
public:
    explicit Joint(kyNamedPipe& pipe) : mPipe(pipe) {}

    /// Returns when both directions have ended, or the peer is gone. False when something that was
    /// given could not be passed on; standard output reports its failure itself.
    bool run()
    {
        bool isGood = true;
        while (isGood && mPipe.isConnected() && !hasEnded())
            isGood = wait() && step();
        const bool isTaken = !mIsReset && !mPipe.hasWriteFailed();
        if (!isTaken)
            std::cerr << "ky: The peer has closed the pipe before it has taken all\n";
        return isGood && isTaken && mIsGood && mPipe.isConnected();
    }

private:
    bool step()
    {
        mPipe.processNamedPipeEvents(0, false);
        std::vector<char>& bytes = mPipe.editReadBuffer();
        std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        bytes.clear();
        endStream();
        return static_cast<bool>(std::cout);
    }

    /// The peer sees the end of standard input, and may go on sending.
    void endStream()
    {
        if (!mInputEnded || mHasShutDown || mPipe.hasPendingWrite())
            return;
        ::shutdown(mPipe.getSocket(), SHUT_WR);
        mHasShutDown = true;
    }

    /// What the peer has sent comes first, also after a send that failed.
    bool hasEnded() const
    {
        return mPipe.isReadChannelClosed() &&
               (mHasShutDown || mPipe.isWriteChannelClosed() || isPeerGone());
    }

    /// Not when it has only ended its own stream. Input that is there goes before, since it will
    /// not be taken.
    bool isPeerGone() const
    {
        ::pollfd ends[] = {{inputToRead(), POLLIN, 0}, {mPipe.getSocket(), 0, 0}};
        return !mPipe.hasPendingWrite() && ::poll(ends, 2, 0) == 1 &&
               (ends[1].revents & POLLHUP) != 0;
    }

    /// Until input or peer has something, or takes something; reads standard input. A peer that is
    /// slow keeps standard input waiting.
    bool wait()
    {
        ::pollfd ends[] = {{inputToRead(), POLLIN, 0}, {mPipe.getSocket(), socketEvents(), 0}};
        int ready = 0;
        do
            ready = ::poll(ends, 2, -1);
        while (ready == -1 && errno == EINTR);
        if (ready == -1) {
            PrintError("Cannot wait for the pipe", errno);
            return false;
        }
        // Shown once: the next receive takes it for the end of the stream.
        mIsReset |= (ends[1].revents & POLLERR) != 0;
        if (ends[0].revents != 0)
            readInput();
        return true;
    }

    /// Nothing, for poll(2), when it has ended or the peer is slow.
    int inputToRead() const { return mInputEnded || mPipe.hasPendingWrite() ? -1 : STDIN_FILENO; }

    short socketEvents() const
    {
        const int events = (mPipe.isReadChannelClosed() ? 0 : POLLIN) |
                           (mPipe.hasPendingWrite() && !mPipe.isWriteChannelClosed() ? POLLOUT : 0);
        return static_cast<short>(events);
    }

    void readInput()
    {
        const ssize_t size = ReadSome(STDIN_FILENO, mBlock.data(), mBlock.size());
        if (size > 0) {
            mPipe.appendToWriteBuffer(mBlock.data(), static_cast<std::size_t>(size));
            return;
        }
        mInputEnded = true;
        if (size == 0)
            return;
        PrintError("Cannot read standard input", errno);
        mIsGood = false;
    }

    kyNamedPipe& mPipe;
    std::vector<char> mBlock = std::vector<char>(sBlockBytes);
    bool mInputEnded = false;
    bool mHasShutDown = false;  // our stream, for the peer
    bool mIsReset = false;      // by the peer, which has left bytes of ours
    bool mIsGood = true;
};

bool Serve(const std::string& name)
{
    kyNamedPipeServer server;
    if (!server.listenUtf8(ToUtf8(name)) || !server.waitForNewConnection(-1, nullptr)) {
        PrintError("Cannot listen on " + name, errno);
        return false;
    }
    // Others are told at once that there is no place for them.
    server.closeNamedPipeServer();
    return Joint(*server.editClients().front()).run();
}

bool Connect(const std::string& name)
{
    kyNamedPipe pipe;
    if (!pipe.connectToNamedPipeServerUtf8(ToUtf8(name))) {
        PrintError("Cannot connect to " + name, errno);
        return false;
    }
    return Joint(pipe).run();
}

void AddEnd(CLI::App& pipe, const char* verb, const char* description,
            bool (*run)(const std::string&), int& exitCode)
{
    auto* const command = pipe.add_subcommand(verb, description);
    const auto name = std::make_shared<std::string>();
    command->add_option("NAME", *name, "A file of that name in the temporary folder (TMPDIR)")
        ->required();
    command->callback([name, run, &exitCode] {
        initializeKySystem(InitType::Light, false);
        // Standard output is for what the peer sends.
        kyLog::Instance()->setEchoToConsole(false);
        exitCode = run(*name) ? sSuccess : sFailure;
        terminateKySystem();
    });
}

}  // namespace

void AddPipe(CLI::App& app, int& exitCode)
{
    auto* const pipe = app.add_subcommand("pipe", "Join standard input and output to a local pipe");
    pipe->require_subcommand(1);
    pipe->footer(
        "The peer sees the end of standard input, and its output is passed on until it ends, too. "
        "The exit code is 0 when all was passed on, and 1 otherwise.");
    AddEnd(*pipe, "serve", "Take the name, from whoever has it, and serve one client", &Serve,
           exitCode);
    AddEnd(*pipe, "connect", "Connect to who serves that name, or fail at once", &Connect,
           exitCode);
}

}  // namespace ky::tool

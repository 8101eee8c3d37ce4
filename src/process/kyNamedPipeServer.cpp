#include "ky/kyLog.h"
#include "ky/kyNamedPipe.h"

#include "process/LocalSocket.h"

#include <algorithm>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

namespace ky {
namespace {

constexpr int sBacklog = 4096;
constexpr int sPauseMs = 10;

/// The line of a failure, which leaves `errno`; false.
bool Fail(const char* text, int errorNumber)
{
    kyLogObject(kyLog::Critical) << text;
    errno = errorNumber;
    return false;
}

/// 0, or the `errno` of the call that failed.
int SetNonBlocking(int fd)
{
    const int flags = ::fcntl(fd, F_GETFL);
    return flags != -1 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 ? 0 : errno;
}

}  // namespace

struct kyNamedPipeServer::State {
    impl::ScopedFd socket;
    std::string name;
};

enum class kyNamedPipeServer::Outcome { Client, Nobody, Failure };

kyNamedPipeServer::kyNamedPipeServer() : mState(std::make_unique<State>()) {}

kyNamedPipeServer::~kyNamedPipeServer() = default;

bool kyNamedPipeServer::listenUtf8(const std::string& name)
{
    if (mState->socket)
        return Fail("Cannot listen twice in kyNamedPipeServer::listenUtf8", EALREADY);
    if (name.empty())
        return Fail("Socket name is empty in kyNamedPipeServer::listenUtf8", EINVAL);
    const std::string path = impl::LocalSocketPath(name);
    if (path.size() > impl::sMaxLocalSocketPath)
        return Fail("Fail to create socket on kyNamedPipeServer::listenUtf8, name is too long",
                    ENAMETOOLONG);
    // kept: whatever file it is, and whoever listens on it.
    static_cast<void>(::unlink(path.c_str()));
    impl::ScopedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket)
        return Fail(
            "Cannot open socket in kyNamedPipeServer::listenUtf8, socket() returned "
            "INVALID_SOCKET",
            errno);
    if (!impl::BindLocalSocket(socket.get(), path))
        return Fail("Fail to bind on kyNamedPipeServer::listenUtf8", errno);
    if (::listen(socket.get(), sBacklog) != 0)
        return Fail(
            "Cannot listen to socket in kyNamedPipeServer::listenUtf8, listen() returned "
            "SOCKET_ERROR",
            errno);
    if (const int code = SetNonBlocking(socket.get()); code != 0) {
        kyLogObject(kyLog::Critical) << "Failed to set socket as non-blocking in "
                                        "kyNamedPipeServer::listenUtf8, SetNonBlocking returned "
                                        "code "
                                     << code;
        errno = code;
        return false;
    }
    mState->name = name;
    mState->socket = std::move(socket);
    return true;
}

bool kyNamedPipeServer::waitForNewConnection(int timeoutMs, bool* timedOut)
{
    const bool isAccepted = waitForClient(timeoutMs);
    if (timedOut != nullptr)
        *timedOut = !isAccepted;
    return isAccepted;
}

bool kyNamedPipeServer::processPipeServerEvents(int timeoutMs)
{
    // Clients that come as fast as they are accepted would keep the host here for ever.
    int room = sBacklog;
    bool isAccepted = waitForClient(timeoutMs);
    while (isAccepted && --room > 0)
        isAccepted = acceptClient() == Outcome::Client;
    return getSocket() >= 0;
}

bool kyNamedPipeServer::waitForClient(int timeoutMs)
{
    const impl::TimeLimit limit(timeoutMs);
    while (mState->socket) {
        const Outcome outcome = acceptClient();
        if (outcome == Outcome::Client)
            return true;
        // A client that cannot be accepted keeps the socket readable: waiting for that would spin.
        if (outcome == Outcome::Failure) {
            const int remainingMs = limit.remainingMs();
            if (remainingMs == 0)
                return false;
            impl::Pause(remainingMs < 0 ? sPauseMs : std::min(remainingMs, sPauseMs));
            continue;
        }
        // Also where no time is left: nothing else tells that the socket is no use any more.
        const short events = impl::WaitFor(getSocket(), POLLIN | POLLRDHUP, limit);
        if (events == 0)
            return false;
        // A shutdown(2) keeps the socket readable, too.
        if (events == -1 || (events & POLLRDHUP) != 0)
            closeNamedPipeServer();
    }
    return false;
}

kyNamedPipeServer::Outcome kyNamedPipeServer::acceptClient()
{
    int accepted = -1;
    do
        accepted = ::accept4(getSocket(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    while (accepted == -1 && (errno == EINTR || errno == ECONNABORTED));
    if (accepted == -1 && errno == EBADF)
        closeNamedPipeServer();
    if (accepted == -1)
        return errno == EAGAIN ? Outcome::Nobody : Outcome::Failure;
    impl::ScopedFd socket(accepted);
    if (!socket)
        return Outcome::Failure;
    auto client = std::make_unique<kyNamedPipe>();
    client->mName = mState->name;
    client->setSocket(socket.release());
    mClients.push_back(std::move(client));
    return Outcome::Client;
}

void kyNamedPipeServer::closeNamedPipeServer()
{
    mState->socket.reset();
}

int kyNamedPipeServer::getSocket() const
{
    return mState->socket.get();
}

}  // namespace ky

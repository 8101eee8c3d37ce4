#include "ky/kyNamedPipe.h"

#include "ky/kyLog.h"

#include "process/LocalSocket.h"

#include <algorithm>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <cerrno>

namespace ky {
namespace {

constexpr std::size_t sWriteBufferReserve = 10240;
constexpr std::size_t sLongRest = 65536;

}  // namespace

struct kyNamedPipe::State {
    impl::ScopedFd socket;
    bool isReadChannelClosed = false;
    bool isWriteChannelClosed = false;
    bool hasWriteFailed = false;
    // What comes before the write buffer: a long rest is put aside once instead of being moved to
    // the front at each send.
    std::vector<char> backlog;
    std::size_t sentBacklogBytes = 0;
};

kyNamedPipe::kyNamedPipe() : mState(std::make_unique<State>())
{
    mReadBuffer.reserve(msReadBufferLimit);
    mWriteBuffer.reserve(sWriteBufferReserve);
}

kyNamedPipe::~kyNamedPipe() = default;

bool kyNamedPipe::connectToNamedPipeServerUtf8(const std::string& name)
{
    if (isConnected())
        return true;
    const std::string path = impl::LocalSocketPath(name);
    if (path.size() > impl::sMaxLocalSocketPath) {
        kyLogObject(kyLog::Critical) << "Fail to create socket on kyNamedPipe::"
                                        "connectToNamedPipeServerUtf8, name is too long";
        errno = ENAMETOOLONG;
        return false;
    }
    impl::ScopedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket || !impl::ConnectLocalSocket(socket.get(), path))
        return false;
    mName = name;
    setSocket(socket.release());
    return true;
}

void kyNamedPipe::processNamedPipeEvents(int timeoutMs, bool waitWhenIdle)
{
    if (!isConnected())
        return;
    const bool isIdle = mReadBuffer.empty() && !hasPendingWrite();
    receive(waitWhenIdle && isIdle ? timeoutMs : 0);
    send();
}

void kyNamedPipe::receive(int timeoutMs)
{
    // recv(2) of no bytes would give 0, which looks like the end of the stream.
    if (mState->isReadChannelClosed || mReadBuffer.size() >= msReadBufferLimit)
        return;
    // Room first: what was received must not be lost for want of memory.
    mReadBuffer.reserve(msReadBufferLimit);
    char block[msReadBufferLimit];
    const auto tryToReceive = [&] {
        const std::size_t room = msReadBufferLimit - mReadBuffer.size();
        return impl::RetryOnEintr([&] { return ::recv(getSocket(), block, room, MSG_DONTWAIT); });
    };
    ssize_t size = tryToReceive();
    if (size == -1 && errno == EAGAIN && timeoutMs != 0) {
        const short events = impl::WaitFor(getSocket(), POLLIN, impl::TimeLimit(timeoutMs));
        if (events == -1)
            closeNamedPipe();
        if (events <= 0)
            return;
        size = tryToReceive();
    }
    if (size > 0)
        mReadBuffer.insert(mReadBuffer.end(), block, block + size);
    else if (size == -1 && errno == EBADF)
        closeNamedPipe();
    else if (size == 0 || errno != EAGAIN)
        mState->isReadChannelClosed = true;
}

void kyNamedPipe::send()
{
    if (!hasPendingWrite() || mState->isWriteChannelClosed)
        return;
    const std::vector<char>& bytes = mState->backlog.empty() ? mWriteBuffer : mState->backlog;
    const std::size_t sent = mState->sentBacklogBytes;
    // Whether there is room is told by the attempt: asking before would cost far more.
    const ssize_t size = impl::RetryOnEintr([&] {
        return ::send(getSocket(), bytes.data() + sent, bytes.size() - sent,
                      MSG_NOSIGNAL | MSG_DONTWAIT);
    });
    if (size >= 0) {
        takeSent(static_cast<std::size_t>(size));
    } else if (errno != EAGAIN) {
        mState->hasWriteFailed = true;
        mState->isWriteChannelClosed = true;
    }
}

void kyNamedPipe::takeSent(std::size_t size)
{
    if (mState->backlog.empty() && mWriteBuffer.size() - size <= sLongRest) {
        mWriteBuffer.erase(mWriteBuffer.begin(),
                           mWriteBuffer.begin() + static_cast<std::ptrdiff_t>(size));
        return;
    }
    if (mState->backlog.empty())
        mState->backlog.swap(mWriteBuffer);
    mState->sentBacklogBytes += size;
    if (mState->sentBacklogBytes == mState->backlog.size()) {
        mState->backlog.clear();
        mState->sentBacklogBytes = 0;
    }
}

std::vector<char>& kyNamedPipe::editWriteBuffer()
{
    std::vector<char>& backlog = mState->backlog;
    if (!backlog.empty()) {
        const auto sent = static_cast<std::ptrdiff_t>(mState->sentBacklogBytes);
        backlog.erase(backlog.begin(), backlog.begin() + sent);
        backlog.insert(backlog.end(), mWriteBuffer.begin(), mWriteBuffer.end());
        mWriteBuffer.swap(backlog);
        backlog.clear();
        mState->sentBacklogBytes = 0;
    }
    return mWriteBuffer;
}

void kyNamedPipe::appendToWriteBuffer(const void* bytes, std::size_t size)
{
    const char* const first = static_cast<const char*>(bytes);
    mWriteBuffer.insert(mWriteBuffer.end(), first, first + size);
}

std::size_t kyNamedPipe::getPendingWriteSize() const
{
    return mState->backlog.size() - mState->sentBacklogBytes + mWriteBuffer.size();
}

bool kyNamedPipe::isReadChannelClosed() const
{
    return mState->isReadChannelClosed;
}

bool kyNamedPipe::isWriteChannelClosed() const
{
    return mState->isWriteChannelClosed;
}

bool kyNamedPipe::hasWriteFailed() const
{
    return mState->hasWriteFailed;
}

int kyNamedPipe::getSocket() const
{
    return mState->socket.get();
}

void kyNamedPipe::setSocket(int socket)
{
    if (socket != getSocket())
        mState->socket = impl::ScopedFd(std::max(socket, -1));
    // While a program that the host starts had it, the peer would never see the end.
    if (isConnected())
        static_cast<void>(::fcntl(getSocket(), F_SETFD, FD_CLOEXEC));
    mState->isReadChannelClosed = false;
    mState->isWriteChannelClosed = false;
    mState->hasWriteFailed = false;
}

void kyNamedPipe::closeNamedPipe()
{
    mState->socket.reset();
}

}  // namespace ky

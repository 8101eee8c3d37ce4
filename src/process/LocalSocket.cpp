#include "process/LocalSocket.h"

#include "ky/kyDirUtils.h"
#include "ky/kySystemUtils.h"

#include "text/LocalPath.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace ky {
namespace {

constexpr int sConnectStepMs = 10;
constexpr unsigned long sConnectLimitMs = 5000;

struct Address {
    explicit Address(const std::string& path)
        : size(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1))
    {
        local.sun_family = AF_UNIX;
        std::memcpy(local.sun_path, path.c_str(), path.size() + 1);
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&local); }

    sockaddr_un local = {};
    const socklen_t size;
};

bool IsMissing(const std::string& path)
{
    if (path.empty())
        errno = ENOENT;
    return path.empty();
}

/// For a connection that the system goes on making.
bool WaitUntilConnected(int fd)
{
    const unsigned long start = kySystemUtils::GetTimeBaseMs();
    errno = ETIMEDOUT;
    while (start != 0 && kySystemUtils::GetTimeBaseMs() - start <= sConnectLimitMs) {
        const short events = impl::WaitFor(fd, POLLOUT, impl::TimeLimit(sConnectStepMs));
        if (events == 0)
            continue;
        int error = 0;
        socklen_t size = sizeof error;
        if (events == -1 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
            return false;
        // A socket that was never connected is writable, too, and hung up.
        errno = error != 0 ? error : ENOTCONN;
        return error == 0 && (events & (POLLERR | POLLHUP)) == 0;
    }
    errno = ETIMEDOUT;
    return false;
}

}  // namespace

std::string impl::LocalSocketPath(const std::string& nameUtf8)
{
    const std::string folder = kyDirUtils::GetTempFolderUtf8();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): as long as nobody sets the environment meanwhile
    const char* const given = folder.empty() ? std::getenv("TMPDIR") : nullptr;
    // A folder that cannot be told in UTF-8 must not become the root.
    if (given != nullptr && *given != '\0')
        return {};
    return ToLocalPath(folder + "/" + nameUtf8);
}

bool impl::BindLocalSocket(int fd, const std::string& path)
{
    const Address address(path);
    return !IsMissing(path) && ::bind(fd, address.get(), address.size) == 0;
}

bool impl::ConnectLocalSocket(int fd, const std::string& path)
{
    const Address address(path);
    if (IsMissing(path))
        return false;
    if (RetryOnEintr([&] { return ::connect(fd, address.get(), address.size); }) == 0)
        return true;
    return errno == EINPROGRESS && WaitUntilConnected(fd);
}

impl::TimeLimit::TimeLimit(int timeoutMs)
    : mIsUnlimited(timeoutMs < 0 || timeoutMs == INT_MAX),
      mEnd(Clock::now() + std::chrono::milliseconds(timeoutMs))
{}

int impl::TimeLimit::remainingMs() const
{
    if (mIsUnlimited)
        return -1;
    const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(mEnd - Clock::now());
    return remaining.count() > 0 ? static_cast<int>(remaining.count()) : 0;
}

short impl::WaitFor(int fd, short events, const TimeLimit& limit)
{
    ::pollfd descriptor = {fd, events, 0};
    int found = 0;
    // Not poll(2) again with the same time: signals that keep coming would make the wait endless.
    do
        found = ::poll(&descriptor, 1, limit.remainingMs());
    while (found == -1 && errno == EINTR);
    if ((descriptor.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return found == -1 ? short(-1) : descriptor.revents;
}

void impl::Pause(int milliseconds)
{
    static_cast<void>(::poll(nullptr, 0, milliseconds));
}

}  // namespace ky

#include "frame/LogLine.h"

#include "frame/Report.h"
#include "frame/TimeText.h"
#include "fs/ScopedHandles.h"

#include <atomic>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <ctime>

namespace ky::impl {
namespace {

// The C library keeps a lock of its own during syslog(3), without limit while the daemon does not
// read, and does not renew it in a forked child. The fork hook looks whether somebody was inside.
constinit std::atomic<unsigned int> sCallers{0};
constinit std::atomic<bool> sIsLockLost{false};

class Caller {
public:
    Caller() { sCallers.fetch_add(1, std::memory_order_relaxed); }
    ~Caller() { sCallers.fetch_sub(1, std::memory_order_relaxed); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
};

__attribute__((constructor)) void WatchForForksDuringSyslog()
{
    ::pthread_atfork(nullptr, nullptr, [] {
        if (sCallers.exchange(0, std::memory_order_relaxed) != 0)
            sIsLockLost.store(true, std::memory_order_relaxed);
    });
}

/// Keeps free numbers below 3 occupied: syslog(3) opens its socket when it needs one, and whoever
/// writes to standard output would write to the system's log daemon from then on.
class StandardNumbersHeld {
public:
    StandardNumbersHeld()
    {
        for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
            if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF)
                mIsHeld[fd] = ::open("/", O_PATH | O_CLOEXEC) == fd;
        }
    }
    ~StandardNumbersHeld()
    {
        for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
            if (mIsHeld[fd])
                ::close(fd);
        }
    }
    StandardNumbersHeld(const StandardNumbersHeld&) = delete;
    StandardNumbersHeld& operator=(const StandardNumbersHeld&) = delete;

private:
    bool mIsHeld[STDERR_FILENO + 1] = {};
};

int Priority(int level)
{
    if (level == ReportLevel::Warning)
        return LOG_WARNING;
    return level == ReportLevel::Critical ? LOG_CRIT : LOG_INFO;
}

/// What syslog(3) would send, over a socket of our own. Whether there was room for it.
bool SendDatagram(int level, const std::string& localText, int flags)
{
    const ScopedFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    const std::string datagram = "<" + std::to_string(LOG_USER | Priority(level)) + ">" +
                                 FormatTime(::time(nullptr), "%b %e %T", true) + " " +
                                 ::program_invocation_short_name + ": " +
                                 localText.substr(0, localText.find('\0'));
    const ssize_t sent = RetryOnEintr([&] {
        return ::sendto(socket.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | flags,
                        reinterpret_cast<const sockaddr*>(&address), sizeof address);
    });
    return sent != -1 || errno != EAGAIN;
}

}  // namespace

void SendToSystemLog(int level, const std::string& localText)
{
    if (sIsLockLost.load(std::memory_order_relaxed)) {
        SendDatagram(level, localText, 0);
        return;
    }
    const Caller caller;
    const StandardNumbersHeld held;
    ::syslog(Priority(level), "%s", localText.c_str());
}

void CrashSystemLog::send(int level, const std::string& localText)
{
    constexpr std::timespec moment{0, 1000000};
    // poll(2) does not tell whether the queue of a datagram's receiver has room.
    while (!SendDatagram(level, localText, MSG_DONTWAIT) && mMoments > 0) {
        --mMoments;
        ::nanosleep(&moment, nullptr);
    }
}

}  // namespace ky::impl

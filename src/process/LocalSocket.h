#pragma once

#include "fs/ScopedHandles.h"

#include <chrono>
#include <string>

namespace ky::impl {

/// Bytes that the path of a local socket may have.
constexpr std::size_t sMaxLocalSocketPath = 106;

/// Where the socket of that name is, for system calls. Empty, which stands for no file, where it
/// has no local name.
std::string LocalSocketPath(const std::string& nameUtf8);

/// bind(2) and connect(2), of a path that is not too long. True, or false with `errno`; ENOENT for
/// the empty path, which the system would take for a request to choose a name.
bool BindLocalSocket(int fd, const std::string& path);
bool ConnectLocalSocket(int fd, const std::string& path);

/// The end of a wait that signals may interrupt.
class TimeLimit {
public:
    /// From now on. Negative and the largest int mean without limit.
    explicit TimeLimit(int timeoutMs);

    /// As poll(2) takes it: rounded up, -1 for no limit.
    int remainingMs() const;

private:
    using Clock = std::chrono::steady_clock;

    const bool mIsUnlimited;
    const Clock::time_point mEnd;
};

/// Waits for one of `events` (poll(2)), an error or the end of the peer. What is there, 0 when the
/// time is over, and -1 with `errno` when the wait fails, as it does on what is no descriptor.
/// Signals do not end it.
short WaitFor(int fd, short events, const TimeLimit& limit);

/// Returns after `milliseconds`, or when a signal comes.
void Pause(int milliseconds);

}  // namespace ky::impl

#include "frame/SignalDelay.h"

#include "frame/ProcessId.h"

#include <atomic>

#include <sys/syscall.h>
#include <unistd.h>
#include <ctime>

namespace ky::impl {
namespace {

constexpr long sDelayNs = 1000000;
constexpr int sMostDelays = 300;

// The process whose thread has taken the rest. A forked child has none of its parent's timers.
constinit std::atomic<unsigned long> sTakenBy{0};
constinit siginfo_t sInfo = {};
constinit int sTimer = 0;
constinit int sDelays = 0;

/// For the whole process, from another one or from a terminal.
bool IsFromOutside(const siginfo_t& info) noexcept
{
    return info.si_code == SI_USER || info.si_code == SI_QUEUE || info.si_code == SI_KERNEL;
}

bool IsDelayed(const siginfo_t& info) noexcept
{
    return info.si_code == SI_TIMER && info.si_value.sival_ptr == &sInfo;
}

/// By plain system calls: timer_create(2) of the C library is not signal-safe.
bool StartTimer(int signal) noexcept
{
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signal;
    event.sigev_value.sival_ptr = &sInfo;
    if (::syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &sTimer) != 0)
        return false;
    const itimerspec time = {{0, 0}, {0, sDelayNs}};
    if (::syscall(SYS_timer_settime, sTimer, 0, &time, nullptr) == 0)
        return true;
    ::syscall(SYS_timer_delete, sTimer);
    return false;
}

}  // namespace

bool DelaySignal(int signal, const siginfo_t& info) noexcept
{
    // Acquire and release: the last delay may have ended on another thread.
    const unsigned long self = CachedProcessId();
    if (!IsFromOutside(info) || sTakenBy.exchange(self, std::memory_order_acquire) == self)
        return false;
    sInfo = info;
    if (sDelays++ < sMostDelays && StartTimer(signal))
        return true;
    sTakenBy.store(0, std::memory_order_release);
    return false;
}

void RestoreDelayedSignal(siginfo_t& info) noexcept
{
    if (!IsDelayed(info))
        return;
    ::syscall(SYS_timer_delete, sTimer);
    info = sInfo;
    sTakenBy.store(0, std::memory_order_release);
}

}  // namespace ky::impl

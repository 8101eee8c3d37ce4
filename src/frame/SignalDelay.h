#pragma once

#include <signal.h>

namespace ky::impl {

/// Sends a signal that is no fault to the process again, 1 ms later, so that the thread that it has
/// interrupted in an unlucky place can leave that. It comes back by a timer of the process, and is
/// as pending as it was at first, whatever threads end meanwhile. Signal-safe.
///
/// False where it has to be handled now: it was meant for one thread, the process has had 300
/// delays already, another signal is being delayed, or there is no timer.
bool DelaySignal(int signal, const siginfo_t& info) noexcept;

/// What a signal came with at first, into `info`, when it is a delayed one that comes back.
/// Signal-safe.
void RestoreDelayedSignal(siginfo_t& info) noexcept;

}  // namespace ky::impl

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <signal.h>

namespace ky::impl {

struct WatchedSignal {
    int number;
    const char* name;
};

/// What the signal watcher takes over, in the order of its table.
inline constexpr std::array<WatchedSignal, 23> sWatchedSignals = {{
    {SIGABRT, "SIGABRT"},     {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},   {SIGHUP, "SIGHUP"},
    {SIGILL, "SIGILL"},       {SIGINT, "SIGINT"},   {SIGPIPE, "SIGPIPE"}, {SIGPROF, "SIGPROF"},
    {SIGPWR, "SIGPWR"},       {SIGQUIT, "SIGQUIT"}, {SIGSEGV, "SIGSEGV"}, {SIGTSTP, "SIGTSTP"},
    {SIGSYS, "SIGSYS"},       {SIGTERM, "SIGTERM"}, {SIGTRAP, "SIGTRAP"}, {SIGTTIN, "SIGTTIN"},
    {SIGTTOU, "SIGTTOU"},     {SIGURG, "SIGURG"},   {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"},
    {SIGVTALRM, "SIGVTALRM"}, {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
}};

/// The place in the table, or its size for a signal that is not watched. Signal-safe.
std::size_t WatchedSignalIndex(int signal) noexcept;

/// Gives a watched signal `action` and fills `previous` with what it had. Keeps that for the
/// functions below, unless it was an action set through here. False when sigaction(2) fails, with
/// nothing changed. One thread at a time.
bool TakeSignalOver(std::size_t index, const struct sigaction& action, struct sigaction& previous);

/// Gives a signal its default action for good, as the crash handler does with what it has reported.
/// That counts as an action set through here. Signal-safe.
void SetDefaultAction(int signal) noexcept;

/// Gives back, with handler, flags and mask, what the signals had before they were taken over.
/// One thread at a time.
void GiveSignalsBack() noexcept;

/// What a program that is started from here has to find otherwise than this process has it. Bit
/// n - 1 stands for signal n, as in the kernel's sets.
struct SignalsForExec {
    std::uint64_t toIgnore = 0;
    std::uint64_t toDefault = 0;
};

/// Every watched signal that has the watcher's action or a handler: it was ignored before the
/// watcher took it over, and has to be again, or gets its default action. What the host has ignored
/// or set to default since stays. Any thread.
SignalsForExec GetSignalsForExec() noexcept;

}  // namespace ky::impl

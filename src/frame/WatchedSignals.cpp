#include "frame/WatchedSignals.h"

#include <atomic>

namespace ky::impl {
namespace {

/// Outlives the watcher's table: the handlers stay installed after termination.
struct TakenSignal {
    bool isTaken;
    std::atomic<bool> isDefault;  // set by the crash handler on any thread
    struct sigaction ours;
    struct sigaction before;
};
constinit std::array<TakenSignal, sWatchedSignals.size()> sTaken = {};

// Set by the C library in every action that it hands out (sigaction(2)).
constexpr int sRestorerFlag = 0x04000000;

/// A host that ignores SIGPIPE itself mostly has a flag that ours lacks, signal(2) sets SA_RESTART.
bool IsOurs(const TakenSignal& taken, const struct sigaction& action)
{
    if (!taken.isTaken)
        return false;
    if (action.sa_handler == SIG_DFL)
        return taken.isDefault.load(std::memory_order_relaxed);
    return action.sa_sigaction == taken.ours.sa_sigaction &&
           (action.sa_flags & ~sRestorerFlag) == (taken.ours.sa_flags & ~sRestorerFlag);
}

}  // namespace

std::size_t WatchedSignalIndex(int signal) noexcept
{
    std::size_t index = 0;
    while (index < sWatchedSignals.size() && sWatchedSignals[index].number != signal)
        ++index;
    return index;
}

bool TakeSignalOver(std::size_t index, const struct sigaction& action, struct sigaction& previous)
{
    TakenSignal& taken = sTaken[index];
    if (::sigaction(sWatchedSignals[index].number, &action, &previous) != 0)
        return false;
    // A second registration finds the action of the first one, which nobody wants back.
    if (!IsOurs(taken, previous))
        taken.before = previous;
    taken.ours = action;
    taken.isTaken = true;
    taken.isDefault.store(false, std::memory_order_relaxed);
    return true;
}

void SetDefaultAction(int signal) noexcept
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    ::sigaction(signal, &action, nullptr);
    const std::size_t index = WatchedSignalIndex(signal);
    if (index < sTaken.size())
        sTaken[index].isDefault.store(true, std::memory_order_relaxed);
}

void GiveSignalsBack() noexcept
{
    for (std::size_t i = 0; i < sTaken.size(); ++i) {
        if (sTaken[i].isTaken)
            ::sigaction(sWatchedSignals[i].number, &sTaken[i].before, nullptr);
        sTaken[i].isTaken = false;
    }
}

SignalsForExec GetSignalsForExec() noexcept
{
    SignalsForExec signals;
    for (std::size_t i = 0; i < sTaken.size(); ++i) {
        const int signal = sWatchedSignals[i].number;
        struct sigaction current = {};
        if (::sigaction(signal, nullptr, &current) != 0)
            continue;
        // A handler over the watcher's, as that of the console catcher, ends with the exec.
        const bool isHandled = current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN;
        if (!isHandled && !IsOurs(sTaken[i], current))
            continue;
        const bool wasIgnored = sTaken[i].isTaken && sTaken[i].before.sa_handler == SIG_IGN;
        (wasIgnored ? signals.toIgnore : signals.toDefault) |= std::uint64_t{1} << (signal - 1);
    }
    return signals;
}

}  // namespace ky::impl

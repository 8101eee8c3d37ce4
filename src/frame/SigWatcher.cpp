#include "ky/kyException.h"

#include "frame/CrashHandler.h"
#include "frame/CrashLine.h"
#include "frame/Report.h"
#include "frame/SignalStack.h"
#include "frame/WatchedSignals.h"

#include <atomic>
#include <string>

#include <execinfo.h>
#include <signal.h>

namespace ky::exception {
namespace {

struct WatcherEntry {
    int signal;
    struct sigaction action;
    struct sigaction previous;
};

// Owns an entry for each watched signal. Written while no other thread uses the library.
constinit std::atomic<WatcherEntry*> sTable{nullptr};

WatcherEntry MakeEntry(int signal)
{
    WatcherEntry entry = {};
    entry.signal = signal;
    ::sigemptyset(&entry.action.sa_mask);
    if (signal == SIGPIPE) {
        entry.action.sa_handler = SIG_IGN;
        return entry;
    }
    entry.action.sa_sigaction = ky::impl::HandleCrashSignal;
    // On an alternate stack, where the thread has one: a stack overflow leaves no other.
    entry.action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    return entry;
}

/// What allocates when it is used for the first time.
void PrepareCrashHandler()
{
    ky::impl::RememberSignalTexts();
    void* frame = nullptr;
    ::backtrace(&frame, 1);
    ky::impl::MakeInitialSignalStack();
}

}  // namespace

bool IsSigWatcherRegistered()
{
    return sTable.load(std::memory_order_relaxed) != nullptr;
}

namespace impl {

void RegisterSigWatcher()
{
    PrepareCrashHandler();
    if (!IsSigWatcherRegistered())
        sTable.store(new WatcherEntry[ky::impl::sWatchedSignals.size()](),
                     std::memory_order_relaxed);
    WatcherEntry* const table = sTable.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < ky::impl::sWatchedSignals.size(); ++i) {
        table[i] = MakeEntry(ky::impl::sWatchedSignals[i].number);
        if (!ky::impl::TakeSignalOver(i, table[i].action, table[i].previous))
            ky::impl::Report(ky::impl::ReportLevel::Critical, "kySystem",
                             "Failed to register signal " + std::to_string(table[i].signal));
    }
}

void ReleaseSigWatcher()
{
    delete[] sTable.exchange(nullptr, std::memory_order_relaxed);
}

void UnregisterSigWatcher()
{
    ky::impl::GiveSignalsBack();
    ReleaseSigWatcher();
}

}  // namespace impl
}  // namespace ky::exception

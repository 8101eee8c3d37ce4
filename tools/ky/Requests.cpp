#include "Requests.h"

#include "ky/kyCancelConsoleEventCatcher.h"
#include "ky/kyCancelInterface.h"
#include "ky/kyException.h"

#include <array>
#include <atomic>

#include <signal.h>

namespace ky::tool {
namespace {

bool sIsHungUp = false;

constexpr std::array<int, 2> sPassedOn = {SIGUSR1, SIGUSR2};
constinit std::array<std::atomic<bool>, sPassedOn.size()> sHasCome = {};

bool IsIgnored(int signal)
{
    struct sigaction action = {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void Handle(int signal, void (*handler)(int))
{
    if (IsIgnored(signal))
        return;
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigaction(signal, &action, nullptr);
}

void HangUp(int)
{
    __atomic_store_n(&sIsHungUp, true, __ATOMIC_RELAXED);
}

void Remember(int signal)
{
    for (std::size_t i = 0; i < sPassedOn.size(); ++i) {
        if (sPassedOn[i] == signal)
            sHasCome[i].store(true, std::memory_order_relaxed);
    }
}

void CatchConsoleEvents()
{
    constexpr std::array<int, 2> caught = {SIGINT, SIGTERM};
    const std::array<bool, 2> isIgnored = {IsIgnored(caught[0]), IsIgnored(caught[1])};
    kyCancelConsoleEventCatcher::Create();
    for (std::size_t i = 0; i < caught.size(); ++i) {
        if (isIgnored[i])
            ::signal(caught[i], SIG_IGN);
    }
}

}  // namespace

Requests::Requests(bool withParent)
{
    // A stop from the terminal is no crash to be reported.
    exception::impl::UnregisterSigWatcher();
    CatchConsoleEvents();
    for (const int signal : {SIGHUP, SIGQUIT})
        Handle(signal, &HangUp);
    for (const int signal : sPassedOn)
        Handle(signal, &Remember);
    // A message or a log line that nobody takes only fails. Ignored, they would be so in the
    // command.
    for (const int signal : {SIGPIPE, SIGXFSZ})
        Handle(signal, [](int) {});
    // Where it is ignored, the kernel throws exit codes away (waitpid(2)).
    ::signal(SIGCHLD, SIG_DFL);
    if (withParent)
        mParent = std::make_unique<kyCancelIfParentProcessDied>();
}

std::string Requests::stopReason() const
{
    const kyCancelInterfaceProxyReadOnly signals(&sIsHungUp, kyCancelConsoleEventCatcher::Get());
    if (signals.shouldCancel())
        return "Asked by a signal to stop";
    return mParent != nullptr && mParent->shouldCancel() ? "The parent process has died" : "";
}

void Requests::PassOn(pid_t process)
{
    for (std::size_t i = 0; i < sPassedOn.size(); ++i) {
        if (sHasCome[i].exchange(false, std::memory_order_relaxed))
            ::kill(process, sPassedOn[i]);
    }
}

}  // namespace ky::tool

#include "ky/kyCancelConsoleEventCatcher.h"

#include "ky/SystemError.h"
#include "ky/kyLog.h"

#include "frame/MainThread.h"

#include <atomic>

#include <signal.h>
#include <cerrno>

namespace ky {
namespace {

constinit std::atomic<int> sCaught{0};
static_assert(std::atomic<int>::is_always_lock_free, "the handler must not lock");

constinit std::atomic<kyCancelConsoleEventCatcher*> sInstance{nullptr};

// Never destroyed, since others may ask to the very end of the process.
union EmptyProxy {
    constexpr EmptyProxy() noexcept : proxy() {}
    ~EmptyProxy() {}
    kyCancelInterfaceProxyReadOnly proxy;
};
constinit const EmptyProxy sEmptyProxy;

void Catch(int)
{
    if (sCaught.load(std::memory_order_relaxed) == 0)
        sCaught.store(1, std::memory_order_relaxed);
}

void SetActions(void (*handler)(int))
{
    for (const int signal : {SIGINT, SIGTERM}) {
        struct sigaction action = {};
        ::sigemptyset(&action.sa_mask);
        action.sa_handler = handler;
        if (::sigaction(signal, &action, nullptr) == 0)
            continue;
        const int error = errno;
        kyLogObject(kyLog::Critical, nullptr, "kySystem").setFlushNow()
            << "Failed to install " << signal << " signal handler : " << SystemError(error);
    }
}

bool IsOnMainThread(const char* complaint)
{
    if (impl::IsMainThread())
        return true;
    kyLogObject(kyLog::Critical, nullptr, "kySystem").setFlushNow() << complaint;
    return false;
}

}  // namespace

kyCancelConsoleEventCatcher::~kyCancelConsoleEventCatcher() = default;

bool kyCancelConsoleEventCatcher::shouldCancel() const
{
    return sCaught.load(std::memory_order_relaxed) != 0;
}

void kyCancelConsoleEventCatcher::Create()
{
    if (!IsOnMainThread("Trying to Create signal catcher outside of main thread"))
        return;
    if (Get() == nullptr)
        sInstance.store(new kyCancelConsoleEventCatcher, std::memory_order_release);
    SetActions(&Catch);
}

void kyCancelConsoleEventCatcher::Delete()
{
    if (!IsOnMainThread("Trying to Delete signal catcher outside of main thread"))
        return;
    // kept: the default actions, whatever there was before Create(), and without an instance too.
    SetActions(SIG_DFL);
    delete sInstance.exchange(nullptr, std::memory_order_acq_rel);
    if (kyLog* const log = kyLog::Instance())
        log->flush();
}

kyCancelConsoleEventCatcher* kyCancelConsoleEventCatcher::Get()
{
    // Acquire: pairs with Create().
    return sInstance.load(std::memory_order_acquire);
}

const kyCancelInterfaceProxyReadOnly* kyCancelConsoleEventCatcher::GetProxy()
{
    return &sEmptyProxy.proxy;
}

}  // namespace ky

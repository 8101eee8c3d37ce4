#include "Progress.h"

#include <iostream>
#include <string>

#include <signal.h>
#include <unistd.h>

namespace ky::tool {
namespace {

bool sInterrupted = false;
bool sHasBar = false;

/// A line for each tenth that is done.
class TenthLines : public kyProgressNotifierBase {
public:
    using kyProgressNotifierBase::kyProgressNotifierBase;

    void onProgressChanged(float globalProgress) override
    {
        const int tenths = static_cast<int>(globalProgress * 10.0f);
        while (mTenths < tenths)
            std::cout << std::to_string(++mTenths * 10) + "%\n";
    }

private:
    int mTenths = 0;
};

void CancelOn(int signal)
{
    struct sigaction action = {};
    if (::sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN)
        return;
    action = {};
    action.sa_handler = [](int) { __atomic_store_n(&sInterrupted, true, __ATOMIC_RELAXED); };
    ::sigaction(signal, &action, nullptr);
}

}  // namespace

std::unique_ptr<kyProgressNotifierInterface> MakeProgress(bool quiet)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        CancelOn(signal);
    ::signal(SIGPIPE, SIG_IGN);
    if (quiet)
        return std::make_unique<kyProgressNotifierCancelSupportOnly>(&sInterrupted);
    sHasBar = ::isatty(STDOUT_FILENO) == 1;
    if (sHasBar)
        return std::make_unique<kyProgressNotifierConsoleView>(&sInterrupted);
    return std::make_unique<TenthLines>(&sInterrupted);
}

void EraseBar()
{
    if (sHasBar)
        std::cout << "\r\033[K";
}

void LeaveBar()
{
    if (sHasBar)
        std::cout << "\n";
}

}  // namespace ky::tool

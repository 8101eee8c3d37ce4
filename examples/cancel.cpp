// Work without an end, which stops cleanly when a terminal or a polite kill asks for it, and when
// the process that started this one is gone. Here it asks itself, so that the example ends.

#include "ky/kyCancelConsoleEventCatcher.h"
#include "ky/kyCancelIfParentProcessDied.h"
#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <csignal>

namespace {

/// Knows nothing of signals and processes.
int Count(const ky::kyCancelInterfaceReadOnly& cancel)
{
    int items = 0;
    while (!cancel.shouldCancel()) {
        if (++items == 1000)
            std::raise(SIGTERM);
    }
    return items;
}

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    ky::kyCancelConsoleEventCatcher::Create();
    int items = 0;
    {
        const ky::kyCancelIfParentProcessDied cancel(ky::kyCancelConsoleEventCatcher::Get());
        items = Count(cancel);
    }
    ky::kyLogObject(ky::kyLog::Info) << "stopped after " << items << " items";
    ky::kyCancelConsoleEventCatcher::Delete();
    ky::terminateKySystem();
    return items == 1000 ? 0 : 1;
}

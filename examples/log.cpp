// The smallest host: initialise, log, terminate.

#include "ky/kyLog.h"
#include "ky/kySystem.h"

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    ky::kyLogObject(ky::kyLog::Info) << "started with " << 3 << " work items";
    ky::kyLogObject(ky::kyLog::Warning, "net") << "lost " << 2.5 << " % of the packets";
    ky::terminateKySystem();
}

// Work that must not take the machine down with it: past a limit of memory, far from here, the
// process would end with exit code 3. A stopwatch tells how long it took.

#include "ky/MemoryWatchDog.h"
#include "ky/kyHighResTimer.h"
#include "ky/kyLog.h"
#include "ky/kyPowerStatus.h"
#include "ky/kySystem.h"
#include "ky/kySystemUtils.h"

#include <vector>

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    bool isGood = true;
    {
        const ky::MemoryWatchDog watchDog("example", 65536, 3);
        kyHighResTimer timer;
        timer.start();
        const std::vector<char> work(100'000'000, 'x');
        timer.stop();
        const long resident =
            ky::kySystemUtils::GetUsedRamQuantityInBytes(ky::kySystemUtils::Resident);
        ky::kyLogObject(ky::kyLog::Info)
            << work.size() << " bytes in " << timer.getElapsedTimeInMilliSec() << " ms, "
            << resident << " bytes resident";
        isGood = resident >= 100'000'000;
    }
    ky::kyPowerStatusReader power(1000);
    ky::kyLogObject(ky::kyLog::Info) << "power source " << power.getPowerStatus().source;
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}

// One write to two devices, a file and a counter, and the file copied back into memory.

#include "ky/kyDirUtils.h"
#include "ky/kyIoDevice.h"
#include "ky/kyIoDeviceBroadcast.h"
#include "ky/kySystem.h"

#include <iostream>
#include <sstream>
#include <string>

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    const std::string path =
        ky::kyDirUtils::GetTempFileUtf8(ky::kyDirUtils::GetTempFolderUtf8(), "ky-example-");
    ky::kyIoDeviceFileStream file(path, ky::kyIoDevice::DataWayWrite, true);
    ky::kyIoDeviceNullWriteOnly counter;
    ky::kyIoDeviceBroadcast both({&file, &counter});
    for (int i = 0; i < 1000; ++i)
        both << "one line of many\n";
    // Errors stick, so asking once at the end is enough; closing is what hands the last bytes over.
    bool isGood = both.good() && file.close();
    std::cout << counter.getCurrentPos() << " bytes written " << both.getDeviceErrorMsg() << '\n';

    std::ostringstream text;
    ky::kyIoDeviceStdStreamProxy memory(&text);
    isGood = file.open(ky::kyIoDevice::DataWayRead, false) && isGood;
    isGood = file.writeBackToDevice(memory) && isGood;
    isGood = isGood && static_cast<long>(text.str().size()) == counter.getCurrentPos();
    ky::kyDirUtils::RemoveFileUtf8(path);
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}

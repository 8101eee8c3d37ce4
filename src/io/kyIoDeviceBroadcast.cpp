#include "ky/kyIoDeviceBroadcast.h"

#include "ky/kyLog.h"

#include <algorithm>
#include <iterator>

namespace ky {

kyIoDeviceBroadcast::kyIoDeviceBroadcast(const std::vector<kyIoDevice*>& devices)
    : kyIoDevice(DataWayWrite)
{
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(mDevices),
                 [](const kyIoDevice* device) { return device != nullptr; });
}

unsigned long kyIoDeviceBroadcast::readBytes(char* /*dst*/, unsigned long /*n*/)
{
    setDeviceError("Read is not implemented");
    return 0;
}

unsigned long kyIoDeviceBroadcast::writeBytes(const char* src, unsigned long n)
{
    for (kyIoDevice* const device : mDevices) {
        if (device->writeBytes(src, n) != n || device->hasDeviceError()) {
            setDeviceError("Sub device is in error");
            return 0;
        }
    }
    // kept: asked only now, so an error of before does not stop the forwarding.
    return hasDeviceError() ? 0 : n;
}

bool kyIoDeviceBroadcast::atEnd() const
{
    kyLogObject(kyLog::Critical) << "kyIoDeviceBroadcast atEnd is not supported";
    return false;
}

bool kyIoDeviceBroadcast::hasDeviceError() const
{
    return kyIoDevice::hasDeviceError() ||
           std::any_of(mDevices.begin(), mDevices.end(),
                       [](const kyIoDevice* device) { return device->hasDeviceError(); });
}

std::string kyIoDeviceBroadcast::getDeviceErrorMsg() const
{
    std::string text = kyIoDevice::getDeviceErrorMsg();
    // kept: without an own message the devices are not heard.
    if (!text.empty())
        for (const kyIoDevice* const device : mDevices)
            if (device->hasDeviceError())
                text += ", " + device->getDeviceErrorMsg();
    return text;
}

}  // namespace ky

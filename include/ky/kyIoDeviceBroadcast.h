#pragma once

#include "ky/kyExport.h"
#include "ky/kyIoDevice.h"

#include <string>
#include <vector>

namespace ky {

/// Forwards each write to several borrowed devices, in order, up to the first that fails: that one
/// and those behind it lack the bytes, those before it have them. The failure is recorded as "Sub
/// device is in error". It is sticky like that of every device, but does not stop the forwarding:
/// later writes go on to the devices up to the one that fails, and tell 0 meanwhile.
///
/// Cannot be read; is never at its end, and asking for that logs a CRITICAL line.
class KY_API kyIoDeviceBroadcast : public kyIoDevice {
public:
    /// The devices must outlive the broadcast; null pointers are dropped. Without any device every
    /// write is accepted.
    explicit kyIoDeviceBroadcast(const std::vector<kyIoDevice*>& devices);

    unsigned long readBytes(char* dst, unsigned long n) override;
    unsigned long writeBytes(const char* src, unsigned long n) override;
    /// False, with a CRITICAL line.
    bool atEnd() const override;

    /// Own error or one of a device. `clearDeviceError` clears the own one only.
    bool hasDeviceError() const override;

    /// The own message, then those of the devices in error, separated by ", ". Empty while the own
    /// one is, whatever state the devices are in.
    std::string getDeviceErrorMsg() const override;

private:
    std::vector<kyIoDevice*> mDevices;
};

}  // namespace ky

#include "ky/kyIoDevice.h"

#include "ky/kyLog.h"

#include "io/ReadGrowing.h"

#include <algorithm>

#include <cstring>

namespace ky {

kyIoDevice::~kyIoDevice() = default;

std::string kyIoDevice::getDeviceErrorMsg() const
{
    return mErrorMsg;
}

bool kyIoDevice::writeBackToDevice(kyIoDevice& dst, unsigned long* bytesWritten,
                                   std::vector<char>* buffer)
{
    constexpr unsigned long transferBytes = 4UL << 20;
    std::vector<char> own;
    std::vector<char>& bytes = buffer != nullptr ? *buffer : own;
    bytes.resize(transferBytes);
    unsigned long total = 0;
    while (!atEnd() && good()) {
        const unsigned long size = readBytes(bytes.data(), bytes.size());
        // A device that never reports its end, such as a closed file, gives nothing for ever.
        if (size == 0)
            break;
        if (size > bytes.size()) {
            setDeviceError("Device tells more bytes than it was asked for");
            return false;
        }
        total += size;
        if (dst.writeBytes(bytes.data(), size) != size) {
            setDeviceError("Destination device is in error");
            return false;
        }
    }
    if (bytesWritten != nullptr)
        *bytesWritten = total;
    return good();
}

void kyIoDevice::setDeviceError(const std::string& msg)
{
    mHasError = true;
    if (mErrorMsg.empty())
        mErrorMsg = msg.empty() ? " unknown device error" : msg;
    // kept: the first message, whichever came now.
    kyLogObject(kyLog::Trace, nullptr, "iodevice") << "kyIoDevice error : " << mErrorMsg;
}

void kyIoDevice::clearDeviceError()
{
    mHasError = false;
    mErrorMsg.clear();
}

unsigned long kyIoDevice::skipBytes(unsigned long n)
{
    char discarded[4096];
    unsigned long skipped = 0;
    while (skipped < n) {
        const unsigned long asked = std::min(n - skipped, sizeof discarded);
        const unsigned long got = std::min(readBytes(discarded, asked), asked);
        skipped += got;
        if (got < asked)
            break;
    }
    return skipped;
}

kyIoDevice& kyIoDevice::operator<<(const std::string& text)
{
    writeBytes(text.data(), text.size());
    return *this;
}

kyIoDevice& kyIoDevice::operator<<(const char* text)
{
    if (text != nullptr)
        writeBytes(text, std::strlen(text));
    return *this;
}

bool kyIoDeviceRandomAccess::loadFullFileContent(std::vector<char>& out)
{
    if (!good())
        return false;
    const long position = getCurrentPos();
    if (!seek(0, SeekFromEnd))
        return false;
    const long size = getCurrentPos();
    if (size < 0 || !seek(0, SeekFromBeginning))
        return false;
    // A directory or an odd device tells sizes of which nothing is true.
    const auto bytes = static_cast<unsigned long>(size);
    if (constexpr unsigned long plausibleBytes = 1UL << 30; bytes <= plausibleBytes)
        out.reserve(bytes);
    if (impl::ReadGrowing(*this, out, bytes) < bytes)
        return false;
    return seek(position, SeekFromBeginning) && good();
}

}  // namespace ky

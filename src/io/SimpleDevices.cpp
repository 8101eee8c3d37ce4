#include "ky/kyIoDevice.h"

#include "io/CopyBytes.h"

#include <algorithm>

#include <cstring>

namespace ky {

unsigned long kyIoDeviceDummy::readBytes(char* /*dst*/, unsigned long /*n*/)
{
    setDeviceError("Read is not supported");
    return 0;
}

unsigned long kyIoDeviceDummy::writeBytes(const char* /*src*/, unsigned long n)
{
    return n;
}

unsigned long kyIoDeviceNullWriteOnly::readBytes(char* /*dst*/, unsigned long /*n*/)
{
    setDeviceError("readBytes is not supported");
    return 0;
}

unsigned long kyIoDeviceNullWriteOnly::writeBytes(const char* /*src*/, unsigned long n)
{
    moveTo(mPosition + n);
    return n;
}

bool kyIoDeviceNullWriteOnly::seek(long offset, SeekStart from)
{
    const auto distance = static_cast<unsigned long>(offset);
    if (from == SeekFromBeginning)
        moveTo(distance);
    else if (from == SeekFromCurrent)
        moveTo(mPosition + distance);
    else if (from == SeekFromEnd)
        moveTo(mSize + distance);
    else
        setDeviceError("Unhandled seekp enum");
    return good();
}

void kyIoDeviceNullWriteOnly::moveTo(unsigned long position)
{
    // kept: a negative position is not noticed and makes the size huge.
    mPosition = position;
    mSize = std::max(mSize, mPosition);
}

unsigned long kyIoDeviceByteContainerReadOnly::readBytes(char* dst, unsigned long n)
{
    const unsigned long size = std::min(n, mSize - mPosition);
    if (size <= impl::sFewBytes)
        impl::CopyFew(dst, mData + mPosition, size);
    else
        std::memcpy(dst, mData + mPosition, size);
    mPosition += size;
    return size;
}

unsigned long kyIoDeviceByteContainerReadOnly::writeBytes(const char* /*src*/, unsigned long /*n*/)
{
    setDeviceError("Write is not supported");
    return 0;
}

bool kyIoDeviceByteContainerReadOnly::seek(long offset, SeekStart from)
{
    unsigned long start = 0;
    if (from == SeekFromCurrent)
        start = mPosition;
    else if (from == SeekFromEnd)
        start = mSize;
    else if (from != SeekFromBeginning) {
        setDeviceError("seek unhandled enum");
        return good();
    }
    const auto distance = static_cast<unsigned long>(offset);
    if (offset < 0 && 0 - distance > start) {
        setDeviceError("seek offset is negative");
        mPosition = 0;
    } else if (offset > 0 && distance > mSize - start) {
        setDeviceError("seek offset is bigger than buffer");
        mPosition = mSize;
    } else {
        mPosition = start + distance;
    }
    return good();
}

}  // namespace ky

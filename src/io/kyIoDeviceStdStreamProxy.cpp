#include "ky/kyIoDevice.h"

#include "io/StreamState.h"

#include <ostream>

namespace ky {

kyIoDeviceStdStreamProxy::kyIoDeviceStdStreamProxy(std::istream* input)
    : kyIoDeviceRandomAccess(DataWayRead), mInput(input), mOutput(nullptr)
{}

kyIoDeviceStdStreamProxy::kyIoDeviceStdStreamProxy(std::ostream* output)
    : kyIoDeviceRandomAccess(DataWayWrite), mInput(nullptr), mOutput(output)
{}

unsigned long kyIoDeviceStdStreamProxy::readBytes(char* dst, unsigned long n)
{
    if (!good() || mInput == nullptr)
        return 0;
    const impl::Unthrowing unthrowing(*mInput);
    const unsigned long got = impl::ReadFromStream(*mInput, dst, n);
    if (mInput->bad()) {
        setDeviceError("std sub stream is in error after a read : istream bad bit is set");
        return 0;
    }
    return got;
}

unsigned long kyIoDeviceStdStreamProxy::writeBytes(const char* src, unsigned long n)
{
    if (!good() || mOutput == nullptr)
        return 0;
    const impl::Unthrowing unthrowing(*mOutput);
    // With this bit alone a stream writes nothing and reports nothing.
    if (mOutput->rdstate() == std::ios_base::eofbit)
        mOutput->clear();
    mOutput->write(src, static_cast<std::streamsize>(n));
    if (mOutput->fail()) {
        setDeviceError(
            "std sub stream is in error after a write : ostream fail and/or bad bit is set");
        return 0;
    }
    return good() ? n : 0;
}

bool kyIoDeviceStdStreamProxy::atEnd() const
{
    if (mInput == nullptr)
        return false;
    const impl::Unthrowing unthrowing(*mInput);
    return mInput->eof() || impl::IsNothingLeft(*mInput);
}

bool kyIoDeviceStdStreamProxy::seek(long offset, SeekStart from)
{
    if (mInput != nullptr) {
        const impl::Unthrowing unthrowing(*mInput);
        impl::SeekToRead(*mInput, offset, impl::SeekDirection(from));
    } else if (mOutput != nullptr) {
        const impl::Unthrowing unthrowing(*mOutput);
        impl::SeekToWrite(*mOutput, offset, impl::SeekDirection(from));
    }
    return mInput != nullptr || mOutput != nullptr;
}

long kyIoDeviceStdStreamProxy::getCurrentPos() const
{
    if (mOutput != nullptr) {
        const impl::Unthrowing unthrowing(*mOutput);
        return impl::WritePosition(*mOutput);
    }
    return mInput != nullptr ? impl::ReadPosition(*mInput) : 0;
}

}  // namespace ky

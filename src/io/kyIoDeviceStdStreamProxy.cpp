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
    const unsigned long got = impl::ReadFromStream(*mInput, dst, n);
    if (mInput->bad()) {
        setDeviceError("std sub stream is in error after a read : istream bad bit is set");
        return 0;
    }
    return got;
}

unsigned long kyIoDeviceStdStreamProxy::writeBytes(char const* src, unsigned long n)
{
    if (!good() || mOutput == nullptr)
        return 0;
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
    return mInput != nullptr && (mInput->eof() || impl::IsNothingLeft(*mInput));
}

bool kyIoDeviceStdStreamProxy::seek(long offset, SeekStart from)
{
    if (mInput != nullptr)
        mInput->seekg(offset, impl::SeekDirection(from));
    else if (mOutput != nullptr)
        mOutput->seekp(offset, impl::SeekDirection(from));
    return mInput != nullptr || mOutput != nullptr;
}

long kyIoDeviceStdStreamProxy::getCurrentPos() const
{
    if (mOutput != nullptr)
        return mOutput->tellp();
    if (mInput == nullptr)
        return 0;
    if (mInput->fail() || mInput->rdbuf() == nullptr)
        return -1;
    // Not std::istream::tellg, which fails at the end of the file and leaves its failure behind.
    return mInput->rdbuf()->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
}

}  // namespace ky

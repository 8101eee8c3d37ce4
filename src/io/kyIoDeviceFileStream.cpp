#include "ky/kyIoDevice.h"

#include "io/FileStream.h"
#include "io/StreamState.h"
#include "text/LocalPath.h"

#include <sys/stat.h>

namespace ky {
namespace {

const char* const sReadFailed = "std sub stream bad bit is set after a read";
const char* const sWriteFailed = "std sub stream fail bit is set after a write";

bool Exists(const std::string& localPath)
{
    struct ::stat status = {};
    return ::stat(localPath.c_str(), &status) == 0;
}

std::ios_base::openmode OpenMode(kyIoDevice::DataWay way, bool truncate,
                                 const std::string& localPath)
{
    constexpr auto in = std::ios_base::in;
    constexpr auto out = std::ios_base::out;
    if (way == kyIoDevice::DataWayRead)
        return in;
    const bool keep = !truncate && Exists(localPath);
    if (way == kyIoDevice::DataWayWrite)
        // kept: also opened for reading, which the data way then does not allow.
        return keep ? in | out | std::ios_base::app : out | std::ios_base::trunc;
    return keep ? in | out : in | out | std::ios_base::trunc;
}

}  // namespace

kyIoDeviceFileStream::kyIoDeviceFileStream() : kyIoDeviceRandomAccess(DataWayNone) {}

kyIoDeviceFileStream::kyIoDeviceFileStream(std::string const& path, DataWay way, bool truncate)
    : kyIoDeviceFileStream()
{
    open(path, way, truncate);
}

kyIoDeviceFileStream::~kyIoDeviceFileStream()
{
    close();
}

bool kyIoDeviceFileStream::open(DataWay way, bool truncate)
{
    close();
    clearDeviceError();
    bool wasRefused = false;
    if (!mPath.empty() && way >= DataWayRead && way <= DataWayReadWrite) {
        auto stream = std::make_unique<impl::FileStream>();
        const std::string localPath = impl::ToLocalPath(mPath);
        wasRefused = !stream->open(localPath, OpenMode(way, truncate, localPath));
        if (!wasRefused)
            mStream = std::move(stream);
    }
    if (!mStream) {
        // Opening never makes a stream bad, so the second digit does not change.
        setDeviceError("failed to open file: '" + mPath + "' (bits " + (wasRefused ? "1" : "0") +
                       "0)");
        return false;
    }
    mIsOpen = true;
    changeSupportedDataWay(way);
    return true;
}

bool kyIoDeviceFileStream::open(std::string const& path, DataWay way, bool truncate)
{
    setFilePath(path);
    return open(way, truncate);
}

bool kyIoDeviceFileStream::setFilePath(std::string const& path)
{
    close();
    clearDeviceError();
    mPath = path;
    return true;
}

bool kyIoDeviceFileStream::flush()
{
    if (mStream)
        flushStream();
    return good();
}

bool kyIoDeviceFileStream::close()
{
    if (mStream) {
        // A failure before is recorded already, and its bytes are known to be lost.
        mStream->clear();
        mStream->close();
        if (mStream->fail())
            setDeviceError(sWriteFailed);
        mStream.reset();
    }
    const bool wasOpen = mIsOpen;
    mPosition = 0;
    mIsOpen = false;
    changeSupportedDataWay(DataWayNone);
    return wasOpen && !hasDeviceError();
}

unsigned long kyIoDeviceFileStream::readBytes(char* dst, unsigned long n)
{
    if (!mStream || !good() || !supports(DataWayRead))
        return 0;
    if (mStream->good() && mStream->buffer().tryRead(dst, n)) {
        mPosition += static_cast<long>(n);
        return n;
    }
    return readFromStream(dst, n);
}

unsigned long kyIoDeviceFileStream::readFromStream(char* dst, unsigned long n)
{
    // Reading would empty the buffer too, but take a failure for the end of the file.
    if (mStream->buffer().holdsUnwrittenBytes() && !flushStream())
        return 0;
    const unsigned long got = impl::ReadFromStream(*mStream, dst, n);
    if (mStream->bad()) {
        setDeviceError(sReadFailed);
        return 0;
    }
    mPosition += static_cast<long>(got);
    return got;
}

unsigned long kyIoDeviceFileStream::writeBytes(char const* src, unsigned long n)
{
    if (!mStream || !good() || !supports(DataWayWrite))
        return 0;
    // kept: before the outcome is known.
    mPosition += static_cast<long>(n);
    if (mStream->good() && mStream->buffer().tryWrite(src, n))
        return n;
    return writeToStream(src, n);
}

unsigned long kyIoDeviceFileStream::writeToStream(char const* src, unsigned long n)
{
    // With this bit alone a stream writes nothing and reports nothing.
    if (mStream->rdstate() == std::ios_base::eofbit)
        mStream->clear();
    mStream->write(src, static_cast<std::streamsize>(n));
    if (mStream->fail())
        setDeviceError(sWriteFailed);
    // kept: fail() holds for a bad stream too, so this text is never used.
    else if (mStream->bad())
        setDeviceError("std sub stream bad bit is set after a write");
    return good() ? n : 0;
}

bool kyIoDeviceFileStream::flushStream()
{
    // Not std::ostream::flush, which does nothing at the end of the file.
    if (mStream->buffer().pubsync() != -1)
        return true;
    mStream->setstate(std::ios_base::badbit);
    setDeviceError(sWriteFailed);
    return false;
}

bool kyIoDeviceFileStream::atEnd() const
{
    if (!mStream)
        return false;
    if (mStream->eof())
        return true;
    const bool isAtEnd = impl::IsNothingLeft(*mStream);
    // A later write must not find the bit that only this question has set.
    if (isAtEnd && !supports(DataWayRead))
        mStream->clear(mStream->rdstate() & ~std::ios_base::eofbit);
    return isAtEnd;
}

bool kyIoDeviceFileStream::seek(long offset, SeekStart from)
{
    if (!mStream) {
        setDeviceError("File is not open");
        return false;
    }
    // kept: whatever failed before is dropped where the file can be read.
    if (supports(DataWayRead))
        mStream->clear(std::ios_base::eofbit);
    if (supports(DataWayWrite))
        return seekToWrite(offset, from);
    return supports(DataWayRead) ? seekToRead(offset, from) : good();
}

bool kyIoDeviceFileStream::seekToWrite(long offset, SeekStart from)
{
    if (from >= SeekFromBeginning && from <= SeekFromEnd)
        mStream->seekp(offset, impl::SeekDirection(from));
    // Before the input side moves: asking that one for its position fails at the end of the file.
    mPosition = mStream->tellp();
    if (mStream->fail()) {
        setDeviceError("std sub stream is in error after a seekp");
        return false;
    }
    if (supports(DataWayRead)) {
        mStream->seekg(mPosition, std::ios_base::beg);
        if (mStream->bad()) {
            setDeviceError("std sub stream is in error after a seekg");
            return false;
        }
    }
    return good();
}

bool kyIoDeviceFileStream::seekToRead(long offset, SeekStart from)
{
    if (from >= SeekFromBeginning && from <= SeekFromEnd)
        mStream->seekg(offset, impl::SeekDirection(from));
    else
        mStream->seekg(0, std::ios_base::cur);
    // kept: a target that does not exist is no error here, and the position is -1 then.
    mPosition = mStream->tellg();
    if (mStream->bad()) {
        setDeviceError("std sub stream is in error after a seekg");
        return false;
    }
    return good();
}

}  // namespace ky

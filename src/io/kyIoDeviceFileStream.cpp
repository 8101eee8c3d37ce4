#include "ky/kyIoDevice.h"

#include "ky/kyDirUtils.h"

#include "io/FileStream.h"
#include "io/StreamState.h"
#include "text/LocalPath.h"

#include <new>
#include <typeinfo>

namespace ky {
namespace {

const char* const sWriteFailed = "std sub stream fail bit is set after a write";

std::ios_base::openmode OpenMode(kyIoDevice::DataWay way, bool truncate, const std::string& path)
{
    constexpr auto in = std::ios_base::in;
    constexpr auto out = std::ios_base::out;
    if (way == kyIoDevice::DataWayRead)
        return in;
    const bool keep = !truncate && kyDirUtils::FileExistsUtf8(path);
    if (way == kyIoDevice::DataWayWrite)
        // kept: also opened for reading, which the data way then does not allow.
        return keep ? in | out | std::ios_base::app : out | std::ios_base::trunc;
    return keep ? in | out : in | out | std::ios_base::trunc;
}

}  // namespace

kyIoDeviceFileStream::kyIoDeviceFileStream() : kyIoDeviceRandomAccess(DataWayNone) {}

kyIoDeviceFileStream::kyIoDeviceFileStream(const std::string& path, DataWay way, bool truncate)
    : kyIoDeviceFileStream()
{
    open(path, way, truncate);
}

kyIoDeviceFileStream::~kyIoDeviceFileStream()
{
    // The class's own one. With bytes that are lost it makes a message, for which memory can be
    // short.
    try {
        kyIoDeviceFileStream::close();
    } catch (const std::bad_alloc&) {
        mIsOpen = false;
    }
}

bool kyIoDeviceFileStream::open(DataWay way, bool truncate)
{
    close();
    clearDeviceError();
    bool wasRefused = false;
    if (!mPath.empty() && way >= DataWayRead && way <= DataWayReadWrite) {
        auto stream = std::make_unique<impl::FileStream>();
        wasRefused = !stream->open(impl::ToLocalPath(mPath), OpenMode(way, truncate, mPath));
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

bool kyIoDeviceFileStream::open(const std::string& path, DataWay way, bool truncate)
{
    setFilePath(path);
    return open(way, truncate);
}

bool kyIoDeviceFileStream::setFilePath(const std::string& path)
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
        // Also for bytes lost before, whose error may have been cleared since.
        if (!mStream->close())
            setDeviceError(sWriteFailed);
        mStream.reset();
    }
    const bool wasOpen = mIsOpen;
    mPosition = 0;
    mIsOpen = false;
    changeSupportedDataWay(DataWayNone);
    return wasOpen && !hasDeviceError();
}

// Whether the window may be used without asking anything else: a derived class can have another
// idea of what an error is.
inline bool kyIoDeviceFileStream::isReadyFor(DataWay way) const
{
    return &typeid(*this) == &typeid(kyIoDeviceFileStream) && !kyIoDevice::hasDeviceError() &&
           supports(way) && mStream->good();
}

// Unsigned: a position that is sought may be near to the largest.
inline void kyIoDeviceFileStream::advance(unsigned long n)
{
    mPosition = static_cast<long>(static_cast<unsigned long>(mPosition) + n);
}

unsigned long kyIoDeviceFileStream::readBytes(char* dst, unsigned long n)
{
    if (mStream && isReadyFor(DataWayRead) && mStream->buffer().tryRead(dst, n)) {
        advance(n);
        return n;
    }
    return readFromStream(dst, n);
}

unsigned long kyIoDeviceFileStream::readFromStream(char* dst, unsigned long n)
{
    if (!mStream || !good() || !supports(DataWayRead))
        return 0;
    // Reading would empty the buffer too, but take a failure for the end of the file.
    if (mStream->buffer().holdsUnwrittenBytes() && !flushStream())
        return 0;
    const unsigned long got = impl::ReadFromStream(*mStream, dst, n);
    if (mStream->bad()) {
        setDeviceError("std sub stream bad bit is set after a read");
        return 0;
    }
    advance(got);
    return got;
}

unsigned long kyIoDeviceFileStream::writeBytes(const char* src, unsigned long n)
{
    if (mStream && isReadyFor(DataWayWrite) && mStream->buffer().tryWrite(src, n)) {
        advance(n);
        return n;
    }
    return writeToStream(src, n);
}

unsigned long kyIoDeviceFileStream::writeToStream(const char* src, unsigned long n)
{
    if (!mStream || !good() || !supports(DataWayWrite))
        return 0;
    // kept: before the outcome is known.
    advance(n);
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
    const bool isDone = mStream->handOut();
    if (!isDone)
        setDeviceError(sWriteFailed);
    return isDone;
}

bool kyIoDeviceFileStream::atEnd() const
{
    if (!mStream)
        return false;
    if (mStream->eof())
        return true;
    // Peeking would empty the buffer too, but take a failure for the end. What comes next reports
    // it, as this question cannot.
    if (mStream->buffer().holdsUnwrittenBytes() && !mStream->handOut())
        return false;
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
        impl::SeekToRead(*mStream, offset, impl::SeekDirection(from));
    else
        // Only takes the end-of-file bit back, with which the position could not be told.
        impl::SeekToRead(*mStream, 0, std::ios_base::cur);
    // kept: a target that does not exist is no error here, and the position is -1 then.
    mPosition = impl::ReadPosition(*mStream);
    if (mStream->bad()) {
        setDeviceError("std sub stream is in error after a seekg");
        return false;
    }
    return good();
}

}  // namespace ky

#pragma once

#include "ky/kyExport.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace ky {

namespace impl {
class FileStream;
}

/// A source or sink of bytes: the base of files, streams, buffers and filters.
///
/// No device throws because of an input or output problem, and `std::bad_alloc` alone passes
/// through. The first problem is kept as a flag and a message until `clearDeviceError`; meanwhile
/// most operations move nothing. A device is used by one thread at a time.
class KY_API kyIoDevice {
public:
    /// Bits of the directions that a device supports.
    enum DataWay : int {
        DataWayNone = 0,  ///< closed
        DataWayRead = 1,
        DataWayWrite = 2,
        DataWayReadWrite = 3,
    };

    /// Without an error.
    explicit kyIoDevice(DataWay way) : mDataWay(way) {}
    kyIoDevice(const kyIoDevice&) = delete;
    kyIoDevice& operator=(const kyIoDevice&) = delete;

    // The order of the virtual functions is fixed: devices of users are compiled against it.
    virtual ~kyIoDevice();

    /// Reads up to `n` bytes and returns how many came, never more than `n`.
    virtual unsigned long readBytes(char* dst, unsigned long n) = 0;

    /// Returns how many bytes were accepted.
    virtual unsigned long writeBytes(const char* src, unsigned long n) = 0;

    /// Whether nothing is left to read.
    virtual bool atEnd() const = 0;

    /// Whether an error has been kept.
    virtual bool hasDeviceError() const { return mHasError; }

    /// The first error since the last `clearDeviceError`, or empty.
    virtual std::string getDeviceErrorMsg() const;

    /// Copies what is left of this device to `dst`, up to the end or to a read that gives nothing,
    /// and stores the number of bytes in `bytesWritten`, which may be null. Returns `good()`.
    /// When `dst` takes less than it is given, this device (not `dst`) records "Destination device
    /// is in error", and the result is false with `bytesWritten` untouched. `buffer`, which may be
    /// null, is used for the transfer; its size is 4 MiB afterwards, whatever it was. A read that
    /// tells more than was asked for is an error, too: "Device tells more bytes than it was asked
    /// for".
    virtual bool writeBackToDevice(kyIoDevice& dst, unsigned long* bytesWritten = nullptr,
                                   std::vector<char>* buffer = nullptr);

    /// No error has been kept.
    bool good() const { return !hasDeviceError(); }

    /// Sets the error flag and logs a TRACE line under the system-log name "iodevice". Only the
    /// first message is kept, and each line repeats that one; an empty message is kept as
    /// " unknown device error".
    void setDeviceError(const std::string& msg);

    /// Drops the flag and the message. What the device has lost stays lost.
    void clearDeviceError();

    /// What the device supports, as it tells itself. Changing that opens and closes nothing.
    void changeSupportedDataWay(DataWay way) { mDataWay = way; }
    DataWay getSupportedDataWay() const { return mDataWay; }

    /// Reads and discards, in pieces of at most 4096 bytes, until `n` bytes are gone or a read
    /// comes short. Returns how many went.
    unsigned long skipBytes(unsigned long n);

    /// Writes the bytes of the text, without a terminator; a null pointer writes nothing. How many
    /// bytes were accepted is not told.
    kyIoDevice& operator<<(const std::string& text);
    kyIoDevice& operator<<(const char* text);

private:
    std::string mErrorMsg;
    DataWay mDataWay;
    bool mHasError = false;
};

/// A device with a position, in bytes from its beginning.
class KY_API kyIoDeviceRandomAccess : public kyIoDevice {
public:
    /// What an offset counts from.
    enum SeekStart : int { SeekFromBeginning = 0, SeekFromCurrent = 1, SeekFromEnd = 2 };

    /// Without an error.
    using kyIoDevice::kyIoDevice;

    /// Moves the position by `offset` bytes from there. False when it does not.
    virtual bool seek(long offset, SeekStart from) = 0;

    /// In bytes from the beginning.
    virtual long getCurrentPos() const = 0;

    /// Reads the whole device, whatever its position, with several calls where it is larger than
    /// 16 MiB, and goes back to the position. False when the device has no size (a pipe) or gives
    /// less than its size; `out` is unspecified then.
    bool loadFullFileContent(std::vector<char>& out);
};

/// A file. Its descriptor is not inherited by programs.
///
/// Bytes are buffered: a write that was accepted may still fail at `flush`, `seek`, a read, a later
/// write or `close`, and is then recorded by that one as "std sub stream fail bit is set after a
/// write" (by `seek` as "std sub stream is in error after a seekp"; one that fails at `atEnd` by
/// what follows). What is in the file then is the beginning of what was buffered, and `flush` and
/// `close` record the loss again if the error is cleared meanwhile. Where the limit of file sizes
/// is hit, the host must ignore SIGXFSZ to see that (setrlimit(2)). After a fork(2) both processes
/// hold what was buffered and would write it: flush before.
class KY_API kyIoDeviceFileStream : public kyIoDeviceRandomAccess {
public:
    /// Closed, or opened as `open` does.
    kyIoDeviceFileStream();
    kyIoDeviceFileStream(const std::string& path, DataWay way, bool truncate);

    /// Closes. Who wants to know whether that succeeded calls `close` before.
    ~kyIoDeviceFileStream() override;

    /// Opens the file at the path set before, after closing what was open and clearing the error;
    /// a failure of that closing is only seen in the log. Writing creates the file when it is
    /// missing. Write-only without `truncate` appends to a file that exists, and the position
    /// counts from 0 all the same. Opening a named pipe in one direction waits for the other side
    /// (fifo(7)); where the file is also opened for reading, as for appending, it does not. A
    /// folder opens for reading, and the first read fails.
    ///
    /// A failure records "failed to open file: 'PATH' (bits FB)", where the digits tell whether the
    /// stream failed and was bad: 10 when the system refused, 00 for an empty path or another way.
    bool open(DataWay way, bool truncate);

    /// `path` is UTF-8. One that the local 8-bit set lacks fails like a missing file.
    bool open(const std::string& path, DataWay way, bool truncate);

    /// Closes and clears the error, as `open` does. Always true.
    bool setFilePath(const std::string& path);

    /// As it was given, also while closed.
    const std::string& getFilePath() const { return mPath; }

    /// From an `open` that succeeds to `close`, whatever fails in between.
    bool isOpen() const { return mIsOpen; }

    /// Hands what is buffered to the system. Returns `good()`.
    bool flush();

    /// False when nothing was open, or the device is in error afterwards.
    bool close();

    /// Fewer than `n` bytes mean the end of the file or an error.
    unsigned long readBytes(char* dst, unsigned long n) override;

    /// All or, with an error, 0. The position advances by `n` in either case.
    unsigned long writeBytes(const char* src, unsigned long n) override;

    /// Looks one byte ahead. A failure of that is not the end: the next operation records it.
    bool atEnd() const override;

    /// Drops what state an earlier failure left in the stream, except on a write-only file. Any
    /// other `from` moves nothing. A negative target is an error on a writable file; a read-only
    /// one has the position -1 then and reads nothing.
    bool seek(long offset, SeekStart from) override;

    /// As reads, writes and seeks have moved it; 0 while closed.
    long getCurrentPos() const override { return mPosition; }

private:
    bool supports(DataWay way) const { return (getSupportedDataWay() & way) != 0; }
    bool isReadyFor(DataWay way) const;
    void advance(unsigned long n);
    unsigned long readFromStream(char* dst, unsigned long n);
    unsigned long writeToStream(const char* src, unsigned long n);
    bool flushStream();
    bool seekToWrite(long offset, SeekStart from);
    bool seekToRead(long offset, SeekStart from);

    std::unique_ptr<impl::FileStream> mStream;  // null while closed
    std::string mPath;
    long mPosition = 0;
    bool mIsOpen = false;
};

/// A standard stream as a device, borrowed. A stream that is both for input and output has to be
/// cast to one. What the stream is to throw for (`std::ios::exceptions`) has no effect here.
class KY_API kyIoDeviceStdStreamProxy : public kyIoDeviceRandomAccess {
public:
    /// For reading, or for writing. A null stream moves nothing, without an error.
    explicit kyIoDeviceStdStreamProxy(std::istream* input);
    explicit kyIoDeviceStdStreamProxy(std::ostream* output);

    unsigned long readBytes(char* dst, unsigned long n) override;
    unsigned long writeBytes(const char* src, unsigned long n) override;

    /// Whether the input has no byte left. False for an output.
    bool atEnd() const override;

    /// True whenever there is a stream, even if that cannot move: its position tells. Any other
    /// `from` counts from the end.
    bool seek(long offset, SeekStart from) override;

    /// -1 when the stream has none, 0 without a stream.
    long getCurrentPos() const override;

private:
    std::istream* const mInput;
    std::ostream* const mOutput;
};

/// Takes every write and forgets it. Always at its end; a read is an error.
class KY_API kyIoDeviceDummy : public kyIoDevice {
public:
    kyIoDeviceDummy() : kyIoDevice(DataWayWrite) {}

    unsigned long readBytes(char* dst, unsigned long n) override;
    unsigned long writeBytes(const char* src, unsigned long n) override;

    /// Always.
    bool atEnd() const override { return true; }
};

/// Counts what is written: its size is the highest position reached. Always at its end; a read is
/// an error. Positions wrap around, a negative one is a huge one.
class KY_API kyIoDeviceNullWriteOnly : public kyIoDeviceRandomAccess {
public:
    kyIoDeviceNullWriteOnly() : kyIoDeviceRandomAccess(DataWayWrite) {}

    unsigned long readBytes(char* dst, unsigned long n) override;
    unsigned long writeBytes(const char* src, unsigned long n) override;

    /// Always.
    bool atEnd() const override { return true; }

    /// To any position, which is part of the size then. Any other `from` is an error.
    bool seek(long offset, SeekStart from) override;

    long getCurrentPos() const override { return static_cast<long>(mPosition); }

private:
    void moveTo(unsigned long position);

    unsigned long mPosition = 0;
    unsigned long mSize = 0;
};

/// Reads from borrowed bytes. A write is an error.
class KY_API kyIoDeviceByteContainerReadOnly : public kyIoDeviceRandomAccess {
public:
    /// `size` bytes at `data`, which must outlive the device; null with 0.
    kyIoDeviceByteContainerReadOnly(const char* data, unsigned long size)
        : kyIoDeviceRandomAccess(DataWayRead), mData(data), mSize(size)
    {}
    ~kyIoDeviceByteContainerReadOnly() override { mPosition = 0; }

    unsigned long readBytes(char* dst, unsigned long n) override;
    unsigned long writeBytes(const char* src, unsigned long n) override;

    /// Behind the last byte.
    bool atEnd() const override { return mPosition >= mSize; }

    /// A target outside of the bytes is an error and moves to the end that it lies beyond.
    bool seek(long offset, SeekStart from) override;

    long getCurrentPos() const override { return static_cast<long>(mPosition); }

private:
    const char* const mData;
    const unsigned long mSize;
    unsigned long mPosition = 0;
};

}  // namespace ky

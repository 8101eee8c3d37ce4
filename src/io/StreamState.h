#pragma once

#include "ky/kyIoDevice.h"

#include <istream>
#include <ostream>

#include <cxxabi.h>

namespace ky::impl {

/// Keeps a borrowed stream from throwing while it lives, whatever its owner has asked it to throw
/// for. What has failed meanwhile stays in its state.
class Unthrowing {
public:
    explicit Unthrowing(std::ios& stream) : mStream(stream), mExceptions(stream.exceptions())
    {
        if (mExceptions != std::ios_base::goodbit)
            mStream.exceptions(std::ios_base::goodbit);
    }
    ~Unthrowing()
    {
        if (mExceptions == std::ios_base::goodbit)
            return;
        try {
            mStream.exceptions(mExceptions);
        } catch (const std::exception&) {
            // The failure, or no memory for its text. It is set all the same and takes effect with
            // the owner's next call.
        }
    }
    Unthrowing(const Unthrowing&) = delete;
    Unthrowing& operator=(const Unthrowing&) = delete;

private:
    std::ios& mStream;
    const std::ios_base::iostate mExceptions;
};

/// Reads up to `n` bytes and leaves a stream that came short with its end-of-file bit alone, so
/// that it can be written and positioned. The bad bit stays where reading failed.
inline unsigned long ReadFromStream(std::istream& stream, char* dst, unsigned long n)
{
    if (n == 0)
        return 0;
    stream.read(dst, static_cast<std::streamsize>(n));
    const auto got = static_cast<unsigned long>(stream.gcount());
    const bool isShort = stream.eof() && stream.fail();
    if (!stream.bad() && (got == 0 || isShort))
        stream.clear(std::ios_base::eofbit);
    return got;
}

/// Whether there is no further byte. Sets the end-of-file bit then.
inline bool IsNothingLeft(std::istream& stream)
{
    const bool wasBad = stream.bad();
    const bool hasByte = stream.peek() != std::istream::traits_type::eof();
    // kept: a failure that this question meets is not the end, so that the next read reports it.
    // Asked once more, a bad stream has nothing left.
    return !hasByte && (wasBad || !stream.bad());
}

/// The position of the byte to be read next, -1 without one. Not `std::istream::tellg`, which fails
/// at the end of the file and leaves its failure behind.
inline long ReadPosition(const std::istream& stream)
{
    try {
        if (stream.fail() || stream.rdbuf() == nullptr)
            return -1;
        return stream.rdbuf()->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return -1;
    }
}

/// Fails as `std::istream::seekg` does, but what has no positions at all (a pipe) stays usable: it
/// is where it was, and its bytes are still to be read.
inline void SeekToRead(std::istream& stream, long offset, std::ios_base::seekdir direction)
{
    const bool hadFailed = stream.fail();
    stream.seekg(offset, direction);
    if (hadFailed || stream.rdstate() != std::ios_base::failbit)
        return;
    stream.clear();
    if (ReadPosition(stream) != -1)
        stream.setstate(std::ios_base::failbit);
}

/// `std::ostream`, unlike `std::istream`, lets through what its buffer throws at a positioning.
inline void SeekToWrite(std::ostream& stream, long offset, std::ios_base::seekdir direction)
{
    try {
        stream.seekp(offset, direction);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        stream.setstate(std::ios_base::badbit);
    }
}

inline long WritePosition(std::ostream& stream)
{
    try {
        return stream.tellp();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return -1;
    }
}

/// Other values than those of the enumeration are the end.
inline std::ios_base::seekdir SeekDirection(kyIoDeviceRandomAccess::SeekStart from)
{
    if (from == kyIoDeviceRandomAccess::SeekFromBeginning)
        return std::ios_base::beg;
    return from == kyIoDeviceRandomAccess::SeekFromCurrent ? std::ios_base::cur
                                                           : std::ios_base::end;
}

}  // namespace ky::impl

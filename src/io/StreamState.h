#pragma once

#include "ky/kyIoDevice.h"

#include <istream>

namespace ky::impl {

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
    return stream.peek() == std::istream::traits_type::eof();
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

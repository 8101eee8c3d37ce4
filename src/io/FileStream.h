#pragma once

#include "io/CopyBytes.h"

#include <ext/stdio_filebuf.h>
#include <istream>
#include <string>

namespace ky::impl {

/// A file buffer over a descriptor, whose window of buffered bytes can be used without asking the
/// virtual functions of streams.
class FileBuffer : public __gnu_cxx::stdio_filebuf<char> {
public:
    FileBuffer() = default;
    ~FileBuffer() override { close(); }
    FileBuffer(const FileBuffer&) = delete;
    FileBuffer& operator=(const FileBuffer&) = delete;

    /// Takes `fd` over, unless the result is false (`errno` tells why).
    bool adopt(int fd, std::ios_base::openmode mode);

    /// All `n` bytes or, when the window has no room for them, nothing.
    bool tryWrite(const char* src, unsigned long n)
    {
        if (n > static_cast<unsigned long>(epptr() - pptr()))
            return false;
        CopyBytes(pptr(), src, n);
        pbump(static_cast<int>(n));
        return true;
    }

    /// All `n` bytes or, when the window has fewer, nothing.
    bool tryRead(char* dst, unsigned long n)
    {
        if (n > static_cast<unsigned long>(egptr() - gptr()))
            return false;
        CopyBytes(dst, gptr(), n);
        gbump(static_cast<int>(n));
        return true;
    }

    bool holdsUnwrittenBytes() const { return pptr() != pbase(); }

private:
    char mBytes[128 * 1024];
};

/// What `std::fstream` is, but close-on-exec from birth, off the descriptors of the standard
/// streams, with the classic locale and a large buffer. Final, so that its state is found
/// without looking up where the virtual base lies.
class FileStream final : public std::iostream {
public:
    FileStream();

    /// Opens as `std::fstream::open` does, but always in binary mode and at the beginning
    /// (`std::ios_base::ate` is not heeded); a signal does not interrupt it.
    /// Otherwise the fail bit is set, and `errno` tells why. `localPath` is in the local 8-bit set.
    bool open(const std::string& localPath, std::ios_base::openmode mode);

    /// Sets the fail bit when buffered bytes cannot be written or the system reports a late error.
    void close();

    FileBuffer& buffer() { return mBuffer; }

private:
    FileBuffer mBuffer;
};

}  // namespace ky::impl

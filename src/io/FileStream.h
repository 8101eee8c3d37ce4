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

    /// All `n` bytes or, when the window has no room for them or they are many, nothing.
    bool tryWrite(const char* src, unsigned long n)
    {
        if (n > sFewBytes || n > static_cast<unsigned long>(epptr() - pptr()))
            return false;
        CopyFew(pptr(), src, n);
        pbump(static_cast<int>(n));
        return true;
    }

    /// All `n` bytes or, when the window has fewer or they are many, nothing.
    bool tryRead(char* dst, unsigned long n)
    {
        if (n > sFewBytes || n > static_cast<unsigned long>(egptr() - gptr()))
            return false;
        CopyFew(dst, gptr(), n);
        gbump(static_cast<int>(n));
        return true;
    }

    bool holdsUnwrittenBytes() const { return pptr() != pbase(); }

    /// Whether the system has refused bytes that the window had accepted.
    bool hasLostBytes() const { return mHasLostBytes; }

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* src, std::streamsize n) override;

private:
    void loseWindow();

    bool mHasLostBytes = false;
    char mBytes[128 * 1024];
};

/// What `std::fstream` is, but close-on-exec from birth, off the descriptors of the standard
/// streams, with the classic locale and a large buffer. Final, so that its state is found
/// without looking up where the virtual base lies.
class FileStream final : public std::iostream {
public:
    FileStream();

    /// Opens as `std::fstream::open` does, but always in binary mode and at the beginning
    /// (`std::ios_base::ate` is not heeded); a signal does not interrupt it. When the result is
    /// false, the fail bit is set, and `errno` tells why. `localPath` is in the local 8-bit set.
    bool open(const std::string& localPath, std::ios_base::openmode mode);

    /// Hands what is buffered to the system. False, with the bad bit set, when buffered bytes are
    /// lost, now or before. Not `flush`, which does nothing at the end of the file.
    bool handOut();

    /// False when buffered bytes are lost, now or before, or the system reports a late error.
    bool close();

    FileBuffer& buffer() { return mBuffer; }

private:
    FileBuffer mBuffer;
};

}  // namespace ky::impl

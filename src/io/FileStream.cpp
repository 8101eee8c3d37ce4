#include "io/FileStream.h"

#include "fs/ScopedHandles.h"

#include <locale>

#include <fcntl.h>

namespace ky::impl {
namespace {

/// The flags of open(2), those of fopen(3) for the mode's text ([filebuf.members]).
int OpenFlags(std::ios_base::openmode mode)
{
    int flags = O_WRONLY;
    if ((mode & std::ios_base::in) != 0)
        flags = (mode & std::ios_base::out) != 0 ? O_RDWR : O_RDONLY;
    if ((mode & std::ios_base::trunc) != 0)
        flags |= O_CREAT | O_TRUNC;
    if ((mode & std::ios_base::app) != 0)
        flags |= O_CREAT | O_APPEND;
    return flags;
}

}  // namespace

bool FileBuffer::adopt(int fd, std::ios_base::openmode mode)
{
    // Own bytes rather than the constructor for descriptors: that one can throw with the descriptor
    // taken over already.
    pubsetbuf(mBytes, sizeof mBytes);
    _M_file.sys_open(fd, mode);
    if (!is_open())
        return false;
    _M_mode = mode;
    _M_reading = false;
    _M_writing = false;
    _M_set_buffer(-1);
    return true;
}

FileBuffer::int_type FileBuffer::overflow(int_type c)
{
    const bool held = holdsUnwrittenBytes();
    const int_type result = stdio_filebuf::overflow(c);
    if (held && result == traits_type::eof())
        loseWindow();
    return result;
}

std::streamsize FileBuffer::xsputn(const char* src, std::streamsize n)
{
    const bool held = holdsUnwrittenBytes();
    const std::streamsize put = stdio_filebuf::xsputn(src, n);
    if (held && put < n)
        loseWindow();
    return put;
}

void FileBuffer::loseWindow()
{
    // The system may have taken a part, and the base class would hand out the whole once more.
    mHasLostBytes = true;
    _M_writing = false;
    _M_set_buffer(-1);
}

FileStream::FileStream() : std::iostream(nullptr)
{
    // Facets of the host's global locale may convert what is read and written.
    imbue(std::locale::classic());
    mBuffer.pubimbue(std::locale::classic());
    rdbuf(&mBuffer);
}

bool FileStream::open(const std::string& localPath, std::ios_base::openmode mode)
{
    constexpr mode_t everyone = 0666;
    const int flags = OpenFlags(mode) | O_CLOEXEC | O_NOCTTY;
    ScopedFd fd(RetryOnEintr([&] { return ::open(localPath.c_str(), flags, everyone); }));
    if (!fd || !mBuffer.adopt(fd.get(), mode | std::ios_base::binary)) {
        setstate(std::ios_base::failbit);
        return false;
    }
    static_cast<void>(fd.release());
    clear();
    return true;
}

bool FileStream::handOut()
{
    if (!mBuffer.hasLostBytes() && mBuffer.pubsync() != -1)
        return true;
    setstate(std::ios_base::badbit);
    return false;
}

bool FileStream::close()
{
    return mBuffer.close() != nullptr && !mBuffer.hasLostBytes();
}

}  // namespace ky::impl

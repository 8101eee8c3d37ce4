#include "io/FileStream.h"

#include "fs/ScopedHandles.h"

#include <locale>

#include <fcntl.h>
#include <cerrno>

namespace ky::impl {
namespace {

/// The flags of open(2) for a mode, those of fopen(3) for the mode's text ([filebuf.members]).
/// -1 for a combination that does not exist.
int OpenFlags(std::ios_base::openmode mode)
{
    constexpr auto in = std::ios_base::in;
    constexpr auto out = std::ios_base::out;
    constexpr auto trunc = std::ios_base::trunc;
    constexpr auto app = std::ios_base::app;
    const struct {
        std::ios_base::openmode mode;
        int flags;
    } table[] = {
        {in, O_RDONLY},
        {in | out, O_RDWR},
        {out, O_WRONLY | O_CREAT | O_TRUNC},
        {out | trunc, O_WRONLY | O_CREAT | O_TRUNC},
        {in | out | trunc, O_RDWR | O_CREAT | O_TRUNC},
        {app, O_WRONLY | O_CREAT | O_APPEND},
        {out | app, O_WRONLY | O_CREAT | O_APPEND},
        {in | app, O_RDWR | O_CREAT | O_APPEND},
        {in | out | app, O_RDWR | O_CREAT | O_APPEND},
    };
    for (const auto& row : table)
        if (row.mode == (mode & (in | out | trunc | app)))
            return row.flags;
    return -1;
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
    const int flags = OpenFlags(mode);
    if (flags == -1) {
        errno = EINVAL;
        setstate(std::ios_base::failbit);
        return false;
    }
    ScopedFd fd(RetryOnEintr(
        [&] { return ::open(localPath.c_str(), flags | O_CLOEXEC | O_NOCTTY, everyone); }));
    if (!fd || !mBuffer.adopt(fd.get(), mode | std::ios_base::binary)) {
        setstate(std::ios_base::failbit);
        return false;
    }
    static_cast<void>(fd.release());
    clear();
    return true;
}

void FileStream::close()
{
    if (mBuffer.close() == nullptr)
        setstate(std::ios_base::failbit);
}

}  // namespace ky::impl

#pragma once

#include <memory>
#include <string_view>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

namespace ky::impl {

/// Repeats `call` while a signal interrupts it (signal(7)). Never for close(2): Linux has freed
/// the number by then, and another thread may already own it. `ScopedFd` closes once.
template <typename Call>
auto RetryOnEintr(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

/// False with `errno` after a failure, and then a part may be written.
inline bool WriteAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written =
            RetryOnEintr([&] { return ::write(fd, bytes.data(), bytes.size()); });
        if (written == -1)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

/// Owns a file descriptor, or none. Leaves `errno` as it was, so that it can be made from the
/// result of a call and `errno` asked afterwards.
class ScopedFd {
public:
    ScopedFd() = default;

    /// Takes `fd` over; -1 means none. A number below 3 is exchanged for a higher one, because the
    /// host or a program that it starts would take it for a standard stream. When none is left the
    /// file is closed, and `errno` tells why.
    explicit ScopedFd(int fd) : mFd(fd)
    {
        if (fd < 0 || fd > 2)
            return;
        mFd = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
        closeKeepingErrno(fd);
    }
    ~ScopedFd() { reset(); }
    ScopedFd(ScopedFd&& other) noexcept : mFd(other.release()) {}
    ScopedFd& operator=(ScopedFd&& other) noexcept
    {
        if (this != &other) {
            reset();
            mFd = other.release();
        }
        return *this;
    }

    int get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    int release() { return std::exchange(mFd, -1); }
    void reset()
    {
        if (mFd >= 0)
            closeKeepingErrno(release());
    }

private:
    static void closeKeepingErrno(int fd)
    {
        const int savedErrno = errno;
        ::close(fd);
        errno = savedErrno;
    }

    int mFd = -1;
};

/// Leaves `errno` as it was.
struct HandleCloser {
    void operator()(std::FILE* file) const
    {
        const int savedErrno = errno;
        static_cast<void>(std::fclose(file));
        errno = savedErrno;
    }
    void operator()(DIR* folder) const
    {
        const int savedErrno = errno;
        ::closedir(folder);
        errno = savedErrno;
    }
};
using ScopedFile = std::unique_ptr<std::FILE, HandleCloser>;
using ScopedDir = std::unique_ptr<DIR, HandleCloser>;

/// A stream or folder stream, made by `make` (fdopen(3), fdopendir(3)), that takes `fd` over; null
/// with `errno` when there is no descriptor or the stream fails.
template <typename Handle, typename Make>
std::unique_ptr<Handle, HandleCloser> StreamOver(ScopedFd fd, Make make)
{
    std::unique_ptr<Handle, HandleCloser> stream;
    if (fd)
        stream.reset(make(fd.get()));
    if (stream)
        fd.release();
    return stream;
}

/// As fopen(3), with the `flags` of open(2) in place of those that `mode` stands for.
inline ScopedFile OpenStream(const char* localPath, int flags, const char* mode)
{
    return StreamOver<std::FILE>(
        ScopedFd(RetryOnEintr([&] { return ::open(localPath, flags | O_CLOEXEC, 0666); })),
        [&](int fd) { return ::fdopen(fd, mode); });
}

}  // namespace ky::impl

#include "thread/SystemLock.h"

#include "ky/UUID.h"
#include "ky/kyRandomUtils.h"

#include "fs/SameFile.h"
#include "text/LocalPath.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

namespace ky {
namespace {

constexpr const char* sFolder = "/var/lock/";
constexpr int sDrawsOfTheHost = 16;
constexpr int sMaxDraws = 64;
constexpr int sFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr mode_t sMode = 0666;

std::string PathUtf8(std::string name)
{
    std::replace(name.begin(), name.end(), '/', '_');
    std::replace(name.begin(), name.end(), '.', '_');
    return sFolder + name;
}

std::string DrawName(bool fromSystem)
{
    unsigned char bytes[16] = {};
    if (fromSystem)
        kyRandomUtils::SystemRand(bytes, sizeof bytes);
    else
        kyRandomUtils::Rand(reinterpret_cast<char*>(bytes), sizeof bytes);
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
    std::string name;
    UUID::BinaryToString<UUID::Compact>(bytes, name);
    return name;
}

int WhyNotRegular(mode_t mode)
{
    if (S_ISLNK(mode))
        return ELOOP;
    return S_ISDIR(mode) ? EISDIR : EEXIST;
}

/// Looks before it opens: to open a pipe or a device can already have an effect on it.
impl::ScopedFd OpenRegularFile(const std::string& path)
{
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0)
        return {};
    if (S_ISREG(info.st_mode)) {
        impl::ScopedFd fd(::open(path.c_str(), sFlags));
        if (!fd || ::fstat(fd.get(), &info) != 0)
            return {};
        if (S_ISREG(info.st_mode))
            return fd;
    }
    errno = WhyNotRegular(info.st_mode);
    return {};
}

bool LockFile(int fd, int operation)
{
    return impl::RetryOnEintr([&] { return ::flock(fd, operation); }) == 0;
}

}  // namespace

impl::ScopedFd impl::SystemLock::createFile() const
{
    const bool isChosen = mMode != sAsUmaskSays;
    ScopedFd fd(::open(mPath.c_str(), sFlags | O_CREAT | O_EXCL, isChosen ? 0600 : sMode));
    if (fd && isChosen) {
        static_cast<void>(::fchown(fd.get(), static_cast<uid_t>(-1), mGroup) == 0);
        static_cast<void>(::fchmod(fd.get(), mMode));
    }
    return fd;
}

/// Creating comes second: in a folder that all may write to, the kernel refuses to open another
/// user's file with O_CREAT (proc(5), fs.protected_regular).
impl::ScopedFd impl::SystemLock::openFile() const
{
    while (true) {
        ScopedFd fd = OpenRegularFile(mPath);
        if (fd || errno != ENOENT)
            return fd;
        fd = createFile();
        if (fd || errno != EEXIST)
            return fd;
    }
}

int impl::SystemLock::open(const std::string& name)
{
    mPath = impl::ToLocalPath(PathUtf8(name));
    return mPath.empty() ? ENOENT : keep(openFile());
}

/// The host's generator may draw the same in every process, so a name counts only when its file is
/// new.
int impl::SystemLock::openUnnamed(std::string& name)
{
    int error = EEXIST;
    for (int draw = 0; draw < sMaxDraws && error == EEXIST; ++draw) {
        name = DrawName(draw >= sDrawsOfTheHost);
        mPath = PathUtf8(name);
        error = keep(createFile());
    }
    return error;
}

/// Takes over what is new or a regular file that was there. Returns 0 or the error.
int impl::SystemLock::keep(impl::ScopedFd fd)
{
    if (!fd || ::ftruncate(fd.get(), 0) != 0)
        return errno;
    mFile.reset(::fdopen(fd.get(), "w+"));
    if (!mFile)
        return errno;
    fd.release();
    return 0;
}

/// Puts what is at the path now under the same descriptor number.
bool impl::SystemLock::reopen()
{
    const impl::ScopedFd fd = openFile();
    if (!fd)
        return false;
    const int kept = ::fileno(mFile.get());
    if (impl::RetryOnEintr([&] { return ::dup3(fd.get(), kept, O_CLOEXEC); }) == -1)
        return false;
    mOpenerId.store(impl::CachedProcessId(), std::memory_order_relaxed);
    return true;
}

impl::SystemLock::~SystemLock()
{
    if (!mFile || isInherited())
        return;
    // Under the lock: without it, a holder and whoever creates the file next would both go on.
    const int fd = ::fileno(mFile.get());
    if (LockFile(fd, LOCK_EX | LOCK_NB) && IsAtPath(fd, mPath, AT_SYMLINK_NOFOLLOW))
        ::unlink(mPath.c_str());
}

void impl::SystemLock::lock()
{
    if (!mFile || (sharesDescription() && !reopen()))
        return;
    const int fd = ::fileno(mFile.get());
    // Whoever removed the file held the lock on it until then. Once the path has another file, or
    // none, others lock that one.
    while (LockFile(fd, LOCK_EX) && !IsAtPath(fd, mPath, AT_SYMLINK_NOFOLLOW)) {
        if (!reopen())
            return;
    }
}

void impl::SystemLock::unlock()
{
    if (mFile && !sharesDescription())
        LockFile(::fileno(mFile.get()), LOCK_UN);
}

}  // namespace ky

#include "fs/ReplaceFile.h"

#include "fs/SameFile.h"
#include "fs/ScopedHandles.h"

#include <algorithm>
#include <vector>

#include <fcntl.h>
#include <limits.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace ky {
namespace {

using impl::RetryOnEintr;
using impl::ScopedFd;
using impl::WriteAll;

constexpr const char* sOpenFailure = "Fail to open ";
constexpr const char* sWriteFailure = "Fail to write ";

/// What the last name of a path leads to, which need not be there. Empty after too many links.
std::string FollowLinks(std::string path)
{
    constexpr int maxLinks = 40;  // path_resolution(7)
    for (int i = 0; i < maxLinks; ++i) {
        char target[PATH_MAX];
        const ssize_t size = ::readlink(path.c_str(), target, sizeof target);
        if (size == -1)
            return path;
        if (target[0] != '/')
            path.resize(path.rfind('/') + 1);
        else
            path.clear();
        path.append(target, static_cast<std::size_t>(size));
    }
    return {};
}

/// A new file beside another, removed unless it is put in its place.
class Replacement {
public:
    Replacement() = default;
    ~Replacement()
    {
        if (mIsThere) {
            const int savedErrno = errno;
            ::unlink(mPath.c_str());
            errno = savedErrno;
        }
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    bool create(const std::string& target, mode_t mode)
    {
        do {
            std::uint64_t number = 0;
            if (::getrandom(&number, sizeof number, 0) != sizeof number)
                return false;
            char name[32];
            static_cast<void>(std::snprintf(name, sizeof name, ".ky-%016lx.tmp", number));
            mPath = target.substr(0, target.rfind('/') + 1) + name;
            const int fd = RetryOnEintr([&] {
                return ::open(mPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
            });
            mIsThere = fd != -1;
            mFd = ScopedFd(fd);
        } while (!mIsThere && errno == EEXIST);
        // Without a descriptor when it had one of a standard stream and there is no other.
        return static_cast<bool>(mFd);
    }

    bool takePlaceOf(const std::string& target)
    {
        if (::rename(mPath.c_str(), target.c_str()) != 0)
            return false;
        mIsThere = false;
        return true;
    }

    int fd() const { return mFd.get(); }

private:
    std::string mPath;
    bool mIsThere = false;
    ScopedFd mFd;
};

/// All of an extended attribute, or of their list: `get` is asked for the size first.
template <typename Get>
bool ReadAttribute(Get get, std::vector<char>& value)
{
    const ssize_t size = get(nullptr, 0);
    if (size == -1)
        return false;
    value.resize(static_cast<std::size_t>(size));
    if (size == 0)
        return true;
    const ssize_t got = get(value.data(), value.size());
    value.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return got != -1;
}

bool CopyAttribute(int from, int to, const char* name)
{
    std::vector<char> value;
    std::vector<char> present;
    if (!ReadAttribute(
            [&](char* data, std::size_t size) { return ::fgetxattr(from, name, data, size); },
            value))
        return false;
    // A security label is often there already and then not ours to set.
    return (ReadAttribute(
                [&](char* data, std::size_t size) { return ::fgetxattr(to, name, data, size); },
                present) &&
            present == value) ||
           ::fsetxattr(to, name, value.data(), value.size(), 0) == 0;
}

/// An access list is an attribute too (acl(5)).
bool CopyAttributes(int from, int to)
{
    // The folder may have given one to the new file, whose mode says all otherwise.
    ::fremovexattr(to, "system.posix_acl_access");
    std::vector<char> names;
    if (!ReadAttribute([&](char* data, std::size_t size) { return ::flistxattr(from, data, size); },
                       names))
        return errno == ENOTSUP;
    for (const char* name = names.data(); name < names.data() + names.size();
         name += std::string_view(name).size() + 1)
        if (!CopyAttribute(from, to, name))
            return false;
    return true;
}

bool MakeAlike(int fd, int original)
{
    struct stat wanted;
    struct stat present;
    if (::fstat(original, &wanted) != 0 || ::fstat(fd, &present) != 0)
        return false;
    const bool hasOwner = wanted.st_uid == present.st_uid && wanted.st_gid == present.st_gid;
    // The mode last: a change of owner clears bits of it.
    return (hasOwner || ::fchown(fd, wanted.st_uid, wanted.st_gid) == 0) &&
           CopyAttributes(original, fd) && ::fchmod(fd, wanted.st_mode & ALLPERMS) == 0;
}

/// A late error of writing comes here at the latest. Pipes and the like cannot be flushed.
bool Flush(int fd)
{
    return RetryOnEintr([&] { return ::fsync(fd); }) == 0 || errno == EINVAL || errno == EROFS ||
           errno == ENOTSUP;
}

bool HasNoRoom(int errorNumber)
{
    return errorNumber == ENOSPC || errorNumber == EDQUOT || errorNumber == EFBIG;
}

bool WriteAt(int fd, std::size_t position, std::string_view content)
{
    return ::lseek(fd, static_cast<off_t>(position), SEEK_SET) != -1 && WriteAll(fd, content);
}

/// Lets those who write a file in place take turns, so that it is the whole output of one of them.
/// Not for ever: a host may lock its files for reasons of its own. Not every file system has locks.
class Turn {
public:
    explicit Turn(int fd) : mFd(fd)
    {
        constexpr int patienceMs = 10'000;
        constexpr std::timespec millisecond{0, 1'000'000};
        for (int i = 0; i < patienceMs && !change(F_WRLCK) && errno == EAGAIN; ++i)
            ::nanosleep(&millisecond, nullptr);
    }
    /// A forked child may have the file open for long.
    ~Turn()
    {
        const int savedErrno = errno;
        change(F_UNLCK);
        errno = savedErrno;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    bool change(short type) const
    {
        struct flock whole = {};
        whole.l_type = type;
        whole.l_whence = SEEK_SET;
        return ::fcntl(mFd, F_OFD_SETLK, &whole) == 0;
    }

    const int mFd;
};

/// Over the old bytes, but first what goes behind them, so that what there is no room for leaves
/// them as they are.
const char* WriteOver(int fd, std::string_view content)
{
    const Turn turn(fd);
    struct stat before;
    if (::fstat(fd, &before) != 0)
        return sWriteFailure;
    const auto size = static_cast<off_t>(content.size());
    const std::size_t head = std::min(content.size(), static_cast<std::size_t>(before.st_size));
    const bool isFull =
        RetryOnEintr([&] { return ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, size); }) != 0 &&
        HasNoRoom(errno);
    if (isFull || !WriteAt(fd, head, content.substr(head))) {
        const int savedErrno = errno;
        static_cast<void>(::ftruncate(fd, before.st_size) == 0);
        errno = savedErrno;
        return sWriteFailure;
    }
    return WriteAt(fd, 0, content.substr(0, head)) && ::ftruncate(fd, size) == 0 && Flush(fd)
               ? nullptr
               : sWriteFailure;
}

ScopedFd OpenToWrite(const std::string& localPath, int flags = 0)
{
    return ScopedFd(RetryOnEintr(
        [&] { return ::open(localPath.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | flags); }));
}

const char* WriteToSpecial(const std::string& localPath, std::string_view content)
{
    const ScopedFd fd = OpenToWrite(localPath, O_TRUNC);
    if (!fd)
        return sOpenFailure;
    return WriteAll(fd.get(), content) && Flush(fd.get()) ? nullptr : sWriteFailure;
}

/// Whether writing in place may succeed where replacing has failed. EBUSY: a file that is mounted,
/// into a container say.
bool MayWriteInPlace(int errorNumber)
{
    return errorNumber == EACCES || errorNumber == EPERM || errorNumber == EBUSY ||
           errorNumber == ENAMETOOLONG;
}

const char* ReplaceExisting(const std::string& target, const ScopedFd& original,
                            std::string_view content)
{
    {
        Replacement replacement;
        constexpr mode_t ownerOnly = 0600;
        if (!replacement.create(target, ownerOnly)) {
            if (!MayWriteInPlace(errno))
                return sWriteFailure;
        } else if (MakeAlike(replacement.fd(), original.get())) {
            if (!WriteAll(replacement.fd(), content) || !Flush(replacement.fd()))
                return sWriteFailure;
            if (replacement.takePlaceOf(target))
                return nullptr;
            if (!MayWriteInPlace(errno))
                return sWriteFailure;
        }
    }
    return WriteOver(original.get(), content);
}

const char* CreateWhole(const std::string& target, std::string_view content)
{
    Replacement file;
    constexpr mode_t everyone = 0666;
    if (!file.create(target, everyone))
        return sOpenFailure;
    return WriteAll(file.fd(), content) && Flush(file.fd()) && file.takePlaceOf(target)
               ? nullptr
               : sWriteFailure;
}

/// Whether the links of /proc/PID/fd lead to the file and its name is gone. A file without a name
/// is at no other path.
bool IsNameless(int fd, const std::string& localPath)
{
    struct stat status;
    return ::fstat(fd, &status) == 0 && status.st_nlink == 0 && impl::IsAtPath(fd, localPath, 0);
}

/// False, and nothing done, when the file is not at the end of the links of the path: another one
/// has come there meanwhile, or, as for what a process has open that sees other mounts, it never
/// will be. Otherwise `problem` is what `ReplaceFile` gives.
bool TryToReplace(const std::string& localPath, std::string_view content, const char*& problem)
{
    struct stat status;
    problem = sOpenFailure;
    const bool exists = ::stat(localPath.c_str(), &status) == 0;
    if (!exists && (errno != ENOENT || localPath.empty()))
        return true;
    const std::string target = FollowLinks(localPath);
    if (!exists || !S_ISREG(status.st_mode)) {
        problem = exists ? WriteToSpecial(localPath, content) : CreateWhole(target, content);
        return true;
    }
    // Not writable is not replaceable either, although the folder would allow it.
    const ScopedFd original = OpenToWrite(localPath);
    if (!original)
        return errno != ENOENT;
    if (impl::IsAtPath(original.get(), target, AT_SYMLINK_NOFOLLOW))
        problem = ReplaceExisting(target, original, content);
    else if (IsNameless(original.get(), localPath))
        problem = WriteOver(original.get(), content);
    else
        return false;
    return true;
}

}  // namespace

const char* impl::ReplaceFile(const std::string& localPath, std::string_view content)
{
    // Others put files there within microseconds of every try, or it is no use. What was opened in
    // vain can be somebody's backup by now.
    constexpr int maxTries = 100;
    const char* problem = nullptr;
    for (int i = 0; i < maxTries; ++i)
        if (TryToReplace(localPath, content, problem))
            return problem;
    const ScopedFd original = OpenToWrite(localPath);
    return original ? WriteOver(original.get(), content) : sOpenFailure;
}

}  // namespace ky

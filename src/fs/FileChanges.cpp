#include "ky/kyDirUtils.h"

#include "frame/Fail.h"
#include "fs/FailToRemove.h"
#include "fs/MakePath.h"
#include "fs/SameFile.h"
#include "fs/ScopedHandles.h"
#include "text/LocalPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>

namespace ky {
namespace {

constexpr std::size_t sCopyBlockBytes = 8192;

/// Fails in words about a path, and with the `errno` that the failing call has left.
bool Fail(std::string* error, const char* text, const std::string& path, int errorNumber)
{
    if (error != nullptr)
        *error = text + path + "'";
    errno = errorNumber;
    return false;
}

void CopyBytes(std::FILE* source, std::FILE* destination)
{
    // A buffer in between would cut each block in two writes.
    for (std::FILE* stream : {source, destination})
        static_cast<void>(std::setvbuf(stream, nullptr, _IONBF, 0));
    alignas(64) char block[sCopyBlockBytes];
    std::size_t size = 0;
    // kept: neither an error of reading nor a short write ends or fails the copy.
    while ((size = std::fread(block, 1, sizeof block, source)) > 0)
        static_cast<void>(std::fwrite(block, 1, size, destination));
}

/// What has no length, such as a pipe, cannot be emptied and need not be. An empty file is left
/// alone: truncated, it would be written to disk at its closing (ext4(5), auto_da_alloc).
bool Empty(int fd)
{
    struct stat status;
    if (::fstat(fd, &status) != 0)
        return false;
    return !S_ISREG(status.st_mode) || status.st_size == 0 || ::ftruncate(fd, 0) == 0;
}

}  // namespace

bool kyDirUtils::MkpathUtf8(const std::string& path)
{
    return impl::MakePath(impl::ToLocalPath(path));
}

bool kyDirUtils::GrantAllFilePermissionsUtf8(const std::string& path)
{
    const std::string localPath = impl::ToLocalPath(path);
    struct stat status;
    return ::stat(localPath.c_str(), &status) == 0 &&
           ::chmod(localPath.c_str(), (status.st_mode & ALLPERMS) | ACCESSPERMS) == 0;
}

bool kyDirUtils::CopyFileUtf8(const std::string& source, const std::string& destination,
                              bool overwrite, std::string* error)
{
    if (error != nullptr)
        error->clear();
    // kept: the words blame the source, whatever it is.
    if (!overwrite && FileExistsUtf8(destination))
        return Fail(error, "source file is missing '", source, EEXIST);
    const impl::ScopedFile from =
        impl::OpenStream(impl::ToLocalPath(source).c_str(), O_RDONLY, "rb");
    if (!from)
        return Fail(error, "fail to open source file '", source, errno);
    const std::string localDestination = impl::ToLocalPath(destination);
    if (impl::IsAtPath(::fileno(from.get()), localDestination, 0))
        return true;
    // Not truncated by opening: it may have become the source meanwhile.
    const impl::ScopedFile to =
        impl::OpenStream(localDestination.c_str(), O_WRONLY | O_CREAT, "wb");
    if (!to)
        return Fail(error, "fail to open destination file '", destination, errno);
    const int fd = ::fileno(to.get());
    if (impl::IsSameFile(::fileno(from.get()), fd))
        return true;
    if (!Empty(fd))
        return Fail(error, "fail to open destination file '", destination, errno);
    CopyBytes(from.get(), to.get());
    return true;
}

bool kyDirUtils::RenameFileUtf8(const std::string& source, const std::string& destination,
                                std::string* error)
{
    if (error != nullptr)
        error->clear();
    if (::rename(impl::ToLocalPath(source).c_str(), impl::ToLocalPath(destination).c_str()) == 0)
        return true;
    return impl::Fail(error, "rename error ", errno);
}

bool kyDirUtils::RemoveFileUtf8(const std::string& path, std::string* error)
{
    if (error != nullptr)
        error->clear();
    if (path.empty() || std::remove(impl::ToLocalPath(path).c_str()) == 0)
        return true;
    return impl::FailToRemove(error, path, errno);
}

}  // namespace ky

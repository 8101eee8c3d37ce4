#include "ky/kyDirUtils.h"

#include "text/LocalPath.h"

#include <tuple>
#include <utility>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <cerrno>

namespace ky {
namespace {

constexpr std::uint32_t sNfs = 0x6969;  // statfs(2)
constexpr std::uint32_t sFuse = 0x65735546;

bool Stat(const std::string& path, struct stat& info)
{
    return ::stat(impl::ToLocalPath(path).c_str(), &info) == 0;
}

auto Compared(const kyFileInfoUtf8& info)
{
    return std::make_tuple(info.changeTime, info.modificationTime, info.size, bool{info.exists},
                           bool{info.isFile}, bool{info.isDir});
}

}  // namespace

void kyFileInfoUtf8::clearInfos()
{
    *this = kyFileInfoUtf8();
}

bool kyFileInfoUtf8::operator==(const kyFileInfoUtf8& other) const
{
    return Compared(*this) == Compared(other) && path == other.path;
}

void kyDirUtils::GetFileInfoUtf8(const std::string& path, kyFileInfoUtf8& info)
{
    // A copy, since it may be that of the record.
    std::string pathCopy = path;
    info.clearInfos();
    info.path = std::move(pathCopy);
    struct stat status;
    if (!Stat(info.path, status))
        return;
    info.exists = true;
    info.isFile = S_ISREG(status.st_mode);
    info.isDir = S_ISDIR(status.st_mode);
    info.accessTime = status.st_atim.tv_sec;
    info.changeTime = status.st_ctim.tv_sec;
    info.modificationTime = status.st_mtim.tv_sec;
    info.size = status.st_size;
}

bool kyDirUtils::FileExistsUtf8(const std::string& path)
{
    struct stat status;
    return Stat(path, status) && (status.st_mode & S_IFMT) != 0;
}

bool kyDirUtils::DirExistsUtf8(const std::string& path)
{
    struct stat status;
    return Stat(path, status) && S_ISDIR(status.st_mode);
}

bool kyDirUtils::IsNetworkPath(const std::string& path)
{
    struct statfs system;
    if (path.find('\0') != path.npos || ::statfs(path.c_str(), &system) != 0)
        return false;
    // A signed field, which on some platforms has 64 bits.
    const auto type = static_cast<std::uint32_t>(system.f_type);
    return type == sNfs || type == sFuse;
}

unsigned long kyDirUtils::GetAvailableDiskSizeUtf8(const std::string& path, std::string& error)
{
    const std::string localPath = impl::ToLocalPath(path);
    error.clear();
    struct statvfs system;
    if (::statvfs(localPath.c_str(), &system) != 0)
        return 0;
    // kept: the blocks reserved for the super-user count, f_bavail would leave them out.
    return system.f_bsize * system.f_bfree;
}

}  // namespace ky

#include "fs/MakePath.h"

#include <sys/stat.h>
#include <cerrno>

namespace ky {
namespace {

bool MakeFolder(const char* path)
{
    struct stat info;
    if (::stat(path, &info) != 0) {
        if (::mkdir(path, 0777) == 0)
            return true;
        const int error = errno;
        if (error != EEXIST || ::stat(path, &info) != 0) {
            errno = error;
            return false;
        }
    }
    if (S_ISDIR(info.st_mode))
        return true;
    errno = ENOTDIR;
    return false;
}

}  // namespace

bool impl::MakePath(std::string localPath)
{
    // A slash at the start of what is left, the second of two or the first of all, ends no name.
    std::string::size_type start = 0;
    std::string::size_type slash = 0;
    while ((slash = localPath.find('/', start)) != std::string::npos) {
        if (slash != start) {
            localPath[slash] = '\0';
            if (!MakeFolder(localPath.c_str()))
                return false;
            localPath[slash] = '/';
        }
        start = slash + 1;
    }
    return MakeFolder(localPath.c_str());
}

}  // namespace ky

#pragma once

#include <string>

#include <fcntl.h>
#include <sys/stat.h>

namespace ky::impl {

inline bool IsSameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// Whether both descriptors have the same file open, be it by different names.
inline bool IsSameFile(int fd, int otherFd)
{
    struct stat file;
    struct stat other;
    return ::fstat(fd, &file) == 0 && ::fstat(otherFd, &other) == 0 && IsSameFile(file, other);
}

/// Whether the open file is what the path names now. `linkFlag` is that of fstatat(2), 0 to follow.
inline bool IsAtPath(int fd, const std::string& localPath, int linkFlag)
{
    struct stat file;
    struct stat present;
    return ::fstat(fd, &file) == 0 &&
           ::fstatat(AT_FDCWD, localPath.c_str(), &present, linkFlag) == 0 &&
           IsSameFile(file, present);
}

}  // namespace ky::impl

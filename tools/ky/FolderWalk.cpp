#include "FolderWalk.h"

#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <cerrno>

namespace ky::tool {
namespace {

constexpr int sFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// A second descriptor with a position of its own, for readdir(3).
impl::ScopedDir OpenForReading(int folder)
{
    return impl::StreamOver<DIR>(impl::ScopedFd(::openat(folder, ".", sFolderFlags)), ::fdopendir);
}

}  // namespace

bool GoUp(impl::ScopedFd& folder, dev_t device, ino_t inode)
{
    impl::ScopedFd parent(::openat(folder.get(), "..", sFolderFlags));
    struct ::stat status = {};
    if (!parent || ::fstat(parent.get(), &status) != 0)
        return false;
    if (status.st_dev != device || status.st_ino != inode) {
        errno = ESTALE;
        return false;
    }
    folder = std::move(parent);
    return true;
}

void FolderWalk::walk(impl::ScopedFd root)
{
    enter(std::move(root), "");
    while (!mLevels.empty() && !shouldStop()) {
        std::vector<std::string>& folders = mLevels.back().folders;
        if (folders.empty()) {
            if (!leave())
                return;
        } else {
            const std::string name = std::move(folders.back());
            folders.pop_back();
            descend(name);
        }
    }
}

void FolderWalk::descend(const std::string& name)
{
    impl::ScopedFd folder(::openat(mFolder.get(), name.c_str(), sFolderFlags));
    struct ::stat status = {};
    if (!folder || ::fstat(folder.get(), &status) != 0)
        onError(path(name), errno);
    else if (onFolder(name, status))
        enter(std::move(folder), name);
}

void FolderWalk::enter(impl::ScopedFd folder, const std::string& name)
{
    struct ::stat status = {};
    ::fstat(folder.get(), &status);
    mFolder = std::move(folder);
    mLevels.push_back({name, status.st_dev, status.st_ino, {}});
    readFolder();
}

bool FolderWalk::leave()
{
    if (!onLeave())
        return false;
    mLevels.pop_back();
    if (mLevels.empty() || GoUp(mFolder, mLevels.back().device, mLevels.back().inode))
        return true;
    onError(path(""), errno);
    return false;
}

void FolderWalk::readFolder()
{
    const impl::ScopedDir reader = OpenForReading(mFolder.get());
    if (!reader)
        return onError(path(""), errno);
    while (!shouldStop()) {
        errno = 0;
        const dirent* const entry = ::readdir(reader.get());
        if (entry == nullptr) {
            if (errno != 0)
                onError(path(""), errno);
            return;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            takeEntry(name);
    }
}

void FolderWalk::takeEntry(const std::string& name)
{
    struct ::stat status = {};
    if (::fstatat(mFolder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        onError(path(name), errno);
    else if (S_ISDIR(status.st_mode))
        mLevels.back().folders.push_back(name);
    else
        onEntry(mFolder.get(), name, status);
}

std::string FolderWalk::path(const std::string& name) const
{
    std::string text = mRootName;
    const auto append = [&](const std::string& component) {
        if (component.empty())
            return;
        if (!text.empty() && text.back() != '/')
            text += '/';
        text += component;
    };
    for (const Level& level : mLevels)
        append(level.name);
    append(name);
    return text;
}

}  // namespace ky::tool

#include "ky/kyDirUtils.h"

#include "fs/ScopedHandles.h"
#include "text/LocalPath.h"

#include <memory>
#include <string_view>

#include <unistd.h>
#include <cerrno>
#include <cstdlib>

namespace ky {
namespace {

constexpr std::size_t sMaxLinkBytes = 4096;

std::string LocalHome()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): as long as nobody sets the environment meanwhile
    const char* const home = std::getenv("HOME");
    return home != nullptr ? home : ".";
}

/// Converts the home alone, the rest is UTF-8 already. "" where the home cannot be told.
std::string BelowHome(const std::string& restUtf8)
{
    const std::string localHome = LocalHome();
    const std::string homeUtf8 = impl::ToUtf8Path(localHome);
    return homeUtf8.empty() && !localHome.empty() ? std::string() : homeUtf8 + restUtf8;
}

}  // namespace

std::string kyDirUtils::GetCurrentWorkingDirUtf8()
{
    const std::unique_ptr<char, decltype(&std::free)> folder(::getcwd(nullptr, 0), &std::free);
    return folder ? impl::ToUtf8Path(folder.get()) : std::string();
}

bool kyDirUtils::SetCurrentWorkingDirUtf8(const std::string& path)
{
    return ::chdir(impl::ToLocalPath(path).c_str()) == 0;
}

bool kyDirUtils::GetProcessFolderUtf8(std::string& folder)
{
    folder.clear();
    char buffer[sMaxLinkBytes];
    const ssize_t size = ::readlink("/proc/self/exe", buffer, sizeof buffer);
    if (size < 1)
        return false;
    const std::string_view program(buffer, static_cast<std::size_t>(size));
    const std::string localFolder(program.substr(0, program.rfind('/')));
    folder = impl::ToUtf8Path(localFolder);
    // kept: a program in the root has the folder "".
    return !folder.empty() || localFolder.empty();
}

std::string kyDirUtils::GetTempFolderUtf8()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): as long as nobody sets the environment meanwhile
    const char* const folder = std::getenv("TMPDIR");
    return folder != nullptr ? impl::ToUtf8Path(folder) : "/tmp";
}

std::string kyDirUtils::GetTempFileUtf8(const std::string& folder, const std::string& prefix)
{
    return GetTempFileUtf8(folder, prefix, std::string());
}

std::string kyDirUtils::GetTempFileUtf8(const std::string& folder, const std::string& prefix,
                                        const std::string& suffix)
{
    std::string localPath = impl::ToLocalPath(folder + "/" + prefix + "XXXXXX" + suffix);
    if (localPath.empty()) {
        errno = ENOENT;
        return {};
    }
    // kept: a suffix stands where the letters to be replaced are looked for, and fails.
    const impl::ScopedFd file(::mkostemp(localPath.data(), O_CLOEXEC));
    return file ? impl::ToUtf8Path(localPath) : std::string();
}

std::string kyDirUtils::GetDocumentsFolderUtf8()
{
    const std::string documents = BelowHome("/Documents");
    return DirExistsUtf8(documents) ? documents : BelowHome("");
}

std::string kyDirUtils::GetPicturesFolderUtf8()
{
    return BelowHome("/Pictures");
}

std::string kyDirUtils::GetDownloadFolderUtf8()
{
    return BelowHome("/Downloads");
}

std::string kyDirUtils::GetAppDataFolderUtf8(const std::string& appName)
{
    return BelowHome("/." + appName);
}

}  // namespace ky

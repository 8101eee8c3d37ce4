#include "ky/kyIniFile.h"

#include "ky/SystemError.h"
#include "ky/kyDirUtils.h"
#include "ky/kyLog.h"

#include "fs/ReplaceFile.h"
#include "fs/ScopedHandles.h"
#include "text/IniText.h"
#include "text/LocalPath.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

namespace ky {
namespace {

/// Reads the whole file. When the result is false, `text` has the lines that were read whole.
bool ReadFile(const std::string& localPath, std::string& text)
{
    const impl::ScopedFd fd(impl::RetryOnEintr(
        [&] { return ::open(localPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
    struct stat status;
    if (!fd || ::fstat(fd.get(), &status) != 0)
        return false;
    // The size, which may be wrong, and one more, so that the end is found with the same room.
    constexpr std::size_t leastBytes = 65536;
    constexpr std::size_t trustedBytes = std::size_t{64} << 20;
    text.resize(std::clamp(static_cast<std::size_t>(status.st_size) + 1, leastBytes, trustedBytes));
    std::size_t size = 0;
    ssize_t got = 0;
    do {
        if (size == text.size())
            text.resize(2 * size);
        got = impl::RetryOnEintr(
            [&] { return ::read(fd.get(), text.data() + size, text.size() - size); });
        size += got > 0 ? static_cast<std::size_t>(got) : 0;
    } while (got > 0);
    text.resize(size);
    if (got == -1)
        text.resize(text.rfind('\n') + 1);
    return got == 0;
}

}  // namespace

bool LoadIniFile(const std::string& path, kyVariant::kyVariantMapImpl& out)
{
    std::string text;
    std::string problem;
    const bool isRead = ReadFile(impl::ToLocalPath(path), text);
    if (impl::ReadIni(text, out, problem) && !isRead)
        problem = "Fail to open " + path;
    if (problem.empty())
        return true;
    kyLogObject(kyLog::Critical) << problem;
    return false;
}

bool SaveIniFile(const std::string& path, const kyVariant::kyVariantMapImpl& map, bool merge)
{
    kyVariant::kyVariantMapImpl result;
    const bool hasFile = merge && kyDirUtils::FileExistsUtf8(path);
    if (hasFile && !LoadIniFile(path, result)) {
        kyLogObject(kyLog::Critical) << "Fail to load " << path;
        return false;
    }
    const bool isDirect = !hasFile && impl::HasPlainPaths(map);
    if (!isDirect)
        impl::AssignValues(map, result);
    const std::string text = impl::WriteIni(isDirect ? map : result);
    const char* const problem = impl::ReplaceFile(impl::ToLocalPath(path), text);
    if (problem == nullptr)
        return true;
    const SystemError reason(errno);
    kyLogObject(kyLog::Critical) << problem << path << ", " << reason;
    return false;
}

}  // namespace ky

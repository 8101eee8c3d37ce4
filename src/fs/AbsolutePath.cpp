#include "ky/kyDirUtils.h"

#include "text/LocalPath.h"

#include <algorithm>
#include <vector>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace ky {
namespace {

bool IsFinal(const std::string& simplified, const std::string& path)
{
    return simplified.compare(0, 2, "//") == 0 ||
           (path.size() > 2 && path.compare(1, 2, ":/") == 0);
}

/// The caller's own text: what links make of ".." is for realpath(3) to find out.
std::string Against(const std::string& base, const std::string& path)
{
    if (path.empty())
        return base;
    return base + (base.back() == '/' ? "" : "/") + path;
}

/// The root is the empty text, so that a rest can follow.
bool Resolve(const std::string& head, std::string& resolved)
{
    char buffer[PATH_MAX];
    if (!head.empty() && ::realpath(head.c_str(), buffer) == nullptr)
        return false;
    resolved = head.empty() || buffer[1] == '\0' ? "" : buffer;
    return true;
}

/// Resolves the longest head that exists and appends the rest as it is. "" when not even the
/// current folder does.
std::string ResolveWhatExists(std::string path)
{
    std::string resolved;
    std::size_t size = path.size();
    if (!Resolve(path, resolved)) {
        std::vector<std::size_t> slashes;
        for (std::size_t i = 0; i < path.size(); ++i)
            if (path[i] == '/')
                slashes.push_back(i);
        // Whatever is before an existing head exists as well. To try them all, one by one, would
        // take the square of the length.
        const auto missing = std::partition_point(
            slashes.begin(), slashes.end(),
            [&](std::size_t slash) { return Resolve(path.substr(0, slash), resolved); });
        if (missing == slashes.begin())
            path.insert(0, "./");
        size = missing == slashes.begin() ? 1 : *(missing - 1);
        if (!Resolve(path.substr(0, size), resolved))
            return {};
    }
    resolved.append(path, size);
    return resolved.empty() ? "/" : resolved;
}

}  // namespace

std::string kyDirUtils::GetAbsolutePathUtf8(const std::string& path, const std::string& base)
{
    std::string absolute = path.empty() ? "." : SimplifyPath(path);
    if (IsFinal(absolute, path))
        return absolute;
    if (IsPathRelativeUtf8(absolute) && !base.empty())
        absolute = Against(base, path);
    // kept: its links are not resolved.
    if (!IsPathRelativeUtf8(path))
        return absolute;
    std::replace(absolute.begin(), absolute.end(), '\\', '/');
    const std::string localPath = impl::ToLocalPath(absolute);
    if (localPath.empty()) {
        errno = ENOENT;
        return {};
    }
    return impl::ToUtf8Path(ResolveWhatExists(localPath));
}

}  // namespace ky

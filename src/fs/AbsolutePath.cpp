#include "ky/kyDirUtils.h"

#include "text/LocalPath.h"

#include <algorithm>

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
    std::string head = path;
    std::string resolved;
    while (!Resolve(head, resolved)) {
        const auto slash = head.rfind('/');
        if (slash != head.npos) {
            head.resize(slash);
            continue;
        }
        if (path.front() == '.' && head == ".")
            return {};
        path.insert(0, "./");
        head = ".";
    }
    resolved.append(path, head.size());
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

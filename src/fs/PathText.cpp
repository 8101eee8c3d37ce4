#include "ky/kyDirUtils.h"

#include "text/Ascii.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace ky {
namespace {

constexpr std::string_view sSeparators = "/\\";

bool IsSeparator(char c)
{
    return c == '/' || c == '\\';
}

/// How many separators a path begins with as far as they matter: two are not the same as one.
std::size_t RootSize(std::string_view path)
{
    std::size_t size = 0;
    while (size < 2 && size < path.size() && IsSeparator(path[size]))
        ++size;
    return size;
}

std::string WithSlashes(std::string_view path)
{
    std::string result(path);
    std::replace(result.begin(), result.end(), '\\', '/');
    return result;
}

std::string_view LastName(std::string_view path)
{
    const auto separator = path.find_last_of(sSeparators);
    return separator == path.npos ? path : path.substr(separator + 1);
}

std::string_view Folder(std::string_view path)
{
    const auto separator = path.find_last_of(sSeparators);
    return path.substr(0, separator == path.npos ? 0 : separator);
}

/// Calls `take` with each name between separators, from left to right.
template <typename Take>
void ForEachName(std::string_view path, Take take)
{
    const char* const end = path.data() + path.size();
    for (const char* begin = path.data(); begin != end;) {
        if (IsSeparator(*begin)) {
            ++begin;
            continue;
        }
        const char* const nameEnd = std::find_if(begin, end, IsSeparator);
        take(std::string_view(begin, static_cast<std::size_t>(nameEnd - begin)));
        begin = nameEnd;
    }
}

/// Takes names from left to right, each behind its folder.
class SimplifiedPath {
public:
    SimplifiedPath(std::size_t rootSize, std::size_t capacity) : mRootSize(rootSize)
    {
        mText.reserve(capacity);
        mText.assign(rootSize, '/');
        mFixedSize = rootSize;
    }

    void append(std::string_view name)
    {
        if (name == ".")
            return;
        if (name == "..") {
            goUp();
            return;
        }
        mText.append(name);
        mText.push_back('/');
    }

    std::string take(bool endsWithSeparator) &&
    {
        if (mText.empty())
            return ".";
        if (!endsWithSeparator && mText.size() > mRootSize)
            mText.pop_back();
        return std::move(mText);
    }

private:
    void goUp()
    {
        if (mText.size() > mFixedSize) {
            // Each byte is passed once on its way out, so the whole stays linear.
            const auto separator = mText.rfind('/', mText.size() - 2);
            mText.resize(separator == mText.npos ? 0 : separator + 1);
        } else if (mRootSize == 0) {
            mText.append("../");
            mFixedSize = mText.size();
        }
    }

    const std::size_t mRootSize;
    std::size_t mFixedSize;  // of the root, or of the ".." that lead out of a relative path
    std::string mText;       // every name with a "/" behind it
};

bool IsInvalidInFileName(char c)
{
    return c != '\0' && std::strchr("\"*/:<>?\\|", c) != nullptr;
}

}  // namespace

bool kyDirUtils::IsPathRelativeUtf8(const std::string& path)
{
    return path.empty() || path.front() != '/';
}

std::string kyDirUtils::GetActualPathNameUtf8(const std::string& path)
{
    return path;
}

std::string kyDirUtils::JoinPath(const std::string& a, const std::string& b)
{
    if (a.empty())
        return b;
    if (b.empty())
        return a;
    const bool aSeparates = IsSeparator(a.back());
    const bool bSeparates = IsSeparator(b.front());
    std::string result;
    result.reserve(a.size() + 1 + b.size());
    result.append(a);
    if (!aSeparates && !bSeparates)
        result.push_back('/');
    result.append(b, aSeparates && bSeparates ? 1 : 0);
    return result;
}

std::string kyDirUtils::JoinPath(const std::string& a, const std::string& b, const std::string& c)
{
    return JoinPath(JoinPath(a, b), c);
}

std::string kyDirUtils::JoinPath(const std::string& a, const std::string& b, const std::string& c,
                                 const std::string& d)
{
    return JoinPath(JoinPath(a, b, c), d);
}

std::string kyDirUtils::SimplifyPath(const std::string& path)
{
    if (path.empty())
        return {};
    SimplifiedPath simplified(RootSize(path), path.size() + 1);
    ForEachName(path, [&](std::string_view name) { simplified.append(name); });
    return std::move(simplified).take(IsSeparator(path.back()));
}

std::string kyDirUtils::GetParentPathUtf8(const std::string& path)
{
    std::string result(RootSize(path), '/');
    std::string_view last;
    ForEachName(path, [&](std::string_view name) {
        if (!last.empty()) {
            result.append(last);
            result.push_back('/');
        }
        last = name;
    });
    if (result.size() > RootSize(path))
        result.pop_back();
    return result;
}

std::string kyDirUtils::ExtractFolder(const std::string& path)
{
    // kept: nothing is left of "/a", the root's separator belongs to neither part.
    return WithSlashes(Folder(path));
}

std::string kyDirUtils::ExtractFileBaseName(const std::string& path)
{
    const std::string_view name = LastName(path);
    const auto dot = name.rfind('.');
    return std::string(dot == 0 ? name : name.substr(0, dot));
}

void kyDirUtils::SplitFolderFilename(const std::string& path, std::string& folder,
                                     std::string& fileName)
{
    // Both before either is written, which may be the path itself.
    std::string newFolder = ExtractFolder(path);
    std::string newFileName(LastName(path));
    folder = std::move(newFolder);
    fileName = std::move(newFileName);
}

std::string kyDirUtils::ExtractFileExtension(const std::string& path, bool toLowerCase,
                                             int maxParts)
{
    std::string_view name = LastName(path);
    // The dot of a hidden file precedes no extension.
    if (!name.empty() && name.front() == '.')
        name.remove_prefix(1);
    auto dot = name.rfind('.');
    if (dot == name.npos)
        return {};
    for (int parts = 1; parts < maxParts && dot != 0; ++parts) {
        const auto previous = name.rfind('.', dot - 1);
        if (previous == name.npos)
            break;
        dot = previous;
    }
    std::string extension(name.substr(dot + 1));
    if (toLowerCase)
        std::transform(extension.begin(), extension.end(), extension.begin(), impl::ToAsciiLower);
    return extension;
}

void kyDirUtils::GenerateValidFileName(std::string& name, char replacement)
{
    std::replace_if(name.begin(), name.end(), IsInvalidInFileName, replacement);
}

std::string kyDirUtils::GenerateValidFileName(const std::string& name, char replacement)
{
    std::string result = name;
    GenerateValidFileName(result, replacement);
    return result;
}

}  // namespace ky

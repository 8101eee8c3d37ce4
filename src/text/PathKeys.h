#pragma once

#include <string_view>

namespace ky::impl {

/// The keys of a path, from the first to the last. An empty path has none.
class PathKeys {
public:
    PathKeys(std::string_view path, char separator)
        : mRest(path), mSeparator(separator), mIsEmpty(path.empty())
    {}

    bool empty() const { return mIsEmpty; }

    std::string_view take()
    {
        const std::size_t size = mRest.find(mSeparator);
        const std::string_view key = mRest.substr(0, size);
        mIsEmpty = size == std::string_view::npos;
        if (!mIsEmpty)
            mRest.remove_prefix(size + 1);
        return key;
    }

private:
    std::string_view mRest;
    char mSeparator;
    bool mIsEmpty;
};

/// Whether a path can name something: it has keys, and none of them is empty.
inline bool IsPath(std::string_view path, char separator)
{
    if (path.empty() || path.front() == separator || path.back() == separator)
        return false;
    const char twice[] = {separator, separator};
    return path.find(std::string_view(twice, 2)) == std::string_view::npos;
}

}  // namespace ky::impl

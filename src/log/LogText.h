#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ky::impl {

/// Lines that wait to be written with one call, in memory of a fixed size: nothing here allocates.
///
/// A signal handler may interrupt any member: a line counts when all of it is there.
class LogText {
public:
    static constexpr std::size_t sMaxBytes = 1U << 20U;
    static constexpr std::size_t sMaxLines = 1U << 14U;

    bool hasRoomFor(std::size_t bytes) const
    {
        return mBytes + bytes <= sMaxBytes && mLines < sMaxLines;
    }

    void add(std::string_view prefix, std::string_view message)
    {
        char* end = mText.data() + mBytes;
        end = std::copy(prefix.begin(), prefix.end(), end);
        end = std::copy(message.begin(), message.end(), end);
        *end++ = '\n';
        mEnds[mLines] = static_cast<std::uint32_t>(end - mText.data());
        std::atomic_signal_fence(std::memory_order_release);
        mBytes = mEnds[mLines];
        std::atomic_signal_fence(std::memory_order_release);
        ++mLines;
    }

    /// The only line, too long to be copied: both texts are borrowed until `clear`.
    void setLong(std::string_view prefix, std::string_view message)
    {
        mLong = {prefix, message, "\n"};
        mBytes = prefix.size() + message.size() + 1;
        mLines = 1;
    }

    void clear()
    {
        mBytes = 0;
        std::atomic_signal_fence(std::memory_order_release);
        mLines = 0;
        mLong = {};
    }

    std::size_t bytes() const { return mBytes; }
    std::size_t lines() const { return mLines; }

    using Pieces = std::array<std::string_view, 3>;

    /// What to write, one behind the other.
    Pieces pieces() const
    {
        return mBytes > sMaxBytes ? mLong : Pieces{std::string_view(mText.data(), mBytes)};
    }

    /// How many whole lines are in the first `bytes` bytes.
    std::size_t linesWithin(std::size_t bytes) const
    {
        if (bytes >= mBytes)
            return mLines;
        if (mBytes > sMaxBytes)
            return 0;
        const auto* const ends = mEnds.data();
        return static_cast<std::size_t>(std::upper_bound(ends, ends + mLines, bytes) - ends);
    }

private:
    std::size_t mBytes = 0;
    std::size_t mLines = 0;
    Pieces mLong;
    std::array<std::uint32_t, sMaxLines> mEnds;
    std::array<char, sMaxBytes> mText;
};

}  // namespace ky::impl

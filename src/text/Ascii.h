#pragma once

#include <string_view>

#include <emmintrin.h>
#include <cstdint>
#include <cstring>

namespace ky::impl {

/// The white space of isspace(3) in the "C" locale. Unlike that function it has a value for every
/// `char` and leaves the bytes of UTF-8 sequences alone in every locale.
constexpr bool IsAsciiSpace(char c) noexcept
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Without the white space at both ends.
constexpr std::string_view TrimAsciiSpace(std::string_view text) noexcept
{
    while (!text.empty() && IsAsciiSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsAsciiSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

constexpr bool IsAsciiDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}

/// Changes A to Z only, for the same reasons.
constexpr char ToAsciiLower(char c) noexcept
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

/// Whether all bytes are below 0x80; the empty text is ASCII.
inline bool IsAscii(std::string_view text) noexcept
{
    const char* position = text.data();
    const char* const end = position + text.size();
    for (; end - position >= 64; position += 64) {
        const auto* const block = reinterpret_cast<const __m128i*>(position);
        const __m128i all =
            _mm_or_si128(_mm_or_si128(_mm_loadu_si128(block), _mm_loadu_si128(block + 1)),
                         _mm_or_si128(_mm_loadu_si128(block + 2), _mm_loadu_si128(block + 3)));
        if (_mm_movemask_epi8(all) != 0)
            return false;
    }
    std::uint64_t highBits = 0;
    for (; end - position >= 8; position += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, position, sizeof word);
        highBits |= word;
    }
    for (; position != end; ++position)
        highBits |= static_cast<unsigned char>(*position);
    return (highBits & 0x8080808080808080U) == 0;
}

}  // namespace ky::impl

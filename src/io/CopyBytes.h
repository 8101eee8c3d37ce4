#pragma once

#include <cstring>

namespace ky::impl {

/// What `CopyFew` takes: numbers, characters and short texts.
constexpr unsigned long sFewBytes = 16;

/// Copies two pieces of the size of `Word`, which overlap where `n` is less than both.
template <typename Word>
void CopyTwo(char* dst, const char* src, unsigned long n)
{
    Word first;
    Word last;
    std::memcpy(&first, src, sizeof first);
    std::memcpy(&last, src + n - sizeof last, sizeof last);
    std::memcpy(dst, &first, sizeof first);
    std::memcpy(dst + n - sizeof last, &last, sizeof last);
}

/// memcpy(3) of at most `sFewBytes`, through registers and without a call. Null pointers are
/// allowed when `n` is 0.
inline void CopyFew(char* dst, const char* src, unsigned long n)
{
    // Not a switch: its jump table costs more than these tests.
    if (n == 8)
        std::memcpy(dst, src, 8);
    else if (n == 4)
        std::memcpy(dst, src, 4);
    else if (n == 1)
        *dst = *src;
    else if (n > 8)
        CopyTwo<unsigned long>(dst, src, n);
    else if (n > 4)
        CopyTwo<unsigned>(dst, src, n);
    else if (n > 1)
        CopyTwo<unsigned short>(dst, src, n);
}

}  // namespace ky::impl

#pragma once

#include <cstring>

namespace ky::impl {

/// memcpy(3), but the sizes of numbers are moved through a register. Null pointers are allowed when
/// `n` is 0.
inline void CopyBytes(char* dst, const char* src, unsigned long n)
{
    // Not a switch: its jump table costs more than these tests.
    if (n == 8)
        std::memcpy(dst, src, 8);
    else if (n == 4)
        std::memcpy(dst, src, 4);
    else if (n == 1)
        *dst = *src;
    else if (n != 0)
        std::memcpy(dst, src, n);
}

}  // namespace ky::impl

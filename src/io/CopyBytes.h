#pragma once

#include <cstring>

namespace ky::impl {

/// memcpy(3), but the sizes of numbers are moved through a register. Null pointers are allowed when
/// `n` is 0.
inline void CopyBytes(char* dst, const char* src, unsigned long n)
{
    switch (n) {
        case 0:
            return;
        case 1:
            *dst = *src;
            return;
        case 2:
            std::memcpy(dst, src, 2);
            return;
        case 4:
            std::memcpy(dst, src, 4);
            return;
        case 8:
            std::memcpy(dst, src, 8);
            return;
        default:
            std::memcpy(dst, src, n);
    }
}

}  // namespace ky::impl

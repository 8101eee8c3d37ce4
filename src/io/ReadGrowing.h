#pragma once

#include "ky/kyIoDevice.h"

#include <algorithm>

namespace ky::impl {

/// Reads `length` bytes into `out`, a vector or a string, with one call while they are at most
/// 16 MiB. A length can be wrong or hostile: above that `out` grows with what has come, and the
/// first short read ends it. Returns how many bytes came; `out` is unspecified when those are less.
template <typename Container>
unsigned long ReadGrowing(kyIoDevice& device, Container& out, unsigned long length)
{
    constexpr unsigned long trustedBytes = 16UL << 20;
    unsigned long got = 0;
    do {
        const unsigned long goal = std::min(length, std::max(2 * got, trustedBytes));
        out.resize(goal);
        got += device.readBytes(out.data() + got, goal - got);
    } while (got == out.size() && got < length);
    return std::min<unsigned long>(got, out.size());
}

}  // namespace ky::impl

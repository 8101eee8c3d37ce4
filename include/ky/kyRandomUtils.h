#pragma once

#include "ky/kyExport.h"

#include <atomic>
#include <string>

namespace ky {

/// Random bytes from a generator that the host can replace.
///
/// The default generator is rand(3), seeded with 0, 1, 2, ... by the first call of each thread: its
/// values are the same in every run, and `srand` in the host changes them. It serves to spread
/// things, not to keep secrets or to make names that others must not guess; for those install
/// `SystemRand`, or a generator of your own, at start-up.
class KY_API kyRandomUtils {
public:
    /// Fills `length` bytes at `buffer` and returns non-zero, or returns 0 when it cannot. It is
    /// called from whatever threads ask for random values, at the same time.
    using RandGenerator = int (*)(unsigned char* buffer, int length);

    /// Makes `generator` the source of all random values, null the default one. Returns the one
    /// in force before, never null. Meant for start-up: another thread may go on with the old one
    /// for the call that it is in.
    static RandGenerator SetRandGenerator(RandGenerator generator);

    /// Has the current generator fill `length` bytes at `buffer` and returns its result: 0 means
    /// that the bytes are not all filled. A request of more than INT_MAX bytes reaches the
    /// generator in several calls, of which the first that returns 0 is the last.
    static int Rand(char* buffer, unsigned long length);

    /// Lower-case hexadecimal digits of `byteCount` random bytes, two a byte. Shows "0" for bytes
    /// that a failing generator did not fill. 0 gives one byte, as 1 does.
    static std::string CreateRandHexString(unsigned long byteCount);

    /// A generator for secrets: getrandom(2), which waits once, early at boot, until the system has
    /// gathered enough entropy. Returns 0 when the system refuses or `length` is negative, with the
    /// buffer filled in part.
    static int SystemRand(unsigned char* buffer, int length);

    /// The current generator; change it through `SetRandGenerator`.
    static std::atomic<RandGenerator> sRandGenerator;
};

}  // namespace ky

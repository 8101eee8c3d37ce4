#pragma once

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_SANITIZERS() \
    GTEST_SKIP() << "the sanitizers have handlers and locks of their own"
#else
#define SKIP_UNDER_SANITIZERS() static_cast<void>(0)
#endif

namespace ky::test {

inline int* volatile sNull = nullptr;

inline void WriteToNull()
{
    *static_cast<volatile int*>(sNull) = 1;
}

[[gnu::noinline]] inline int OverflowStack(int depth = 0)
{
    volatile char frame[1024] = {};
    frame[static_cast<std::size_t>(depth) % sizeof frame] = 1;
    return depth < 0 ? 0 : OverflowStack(depth + 1) + frame[0];
}

}  // namespace ky::test

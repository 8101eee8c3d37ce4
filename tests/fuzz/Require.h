#pragma once

#include <cstdlib>

namespace ky::test {

/// Ends the process in a way that a fuzzer keeps the input of.
inline void Require(bool isRight)
{
    if (!isRight)
        std::abort();
}

}  // namespace ky::test

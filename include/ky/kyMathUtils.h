#pragma once

#include "ky/kyExport.h"

#include <string>

#include <xmmintrin.h>

namespace ky {

/// Number text for people, and lane constants for clients that compute on four floats at a time.
class KY_API kyMathUtils {
public:
    /// Decimal digits in groups of three, as in 1,234,567. The separator is one byte: the first of
    /// the process locale's thousands separator (localeconv(3)), "," where it has none. The first
    /// call fixes it for the life of the process.
    ///
    /// One call at a time: callers in several threads take turns.
    static std::string FormatIntegerSeparator(unsigned long value);

    /// Fills the masks. Called by `initializeKySystem`.
    static void InitializeLaneMasks();

    /// Masks of four lanes: FF is a lane of 32 set bits, 0 a lane of clear ones. A name gives the
    /// highest lane first, and lane 0, its last, has the lowest address. All bits are clear until
    /// the library is initialised; clients only read them.
    static __m128 sSSE_FF_FF_FF_FF;
    static __m128 sSSE_0_FF_FF_FF;
    static __m128 sSSE_FF_0_FF_FF;
    static __m128 sSSE_FF_FF_0_FF;
    static __m128 sSSE_FF_FF_FF_0;
    static __m128 sSSE_0_0_0_FF;
    static __m128 sSSE_0_0_FF_0;
    static __m128 sSSE_0_FF_0_0;
    static __m128 sSSE_FF_0_0_0;
    static __m128 sSSE_FF_FF_0_0;

    /// One float in all four lanes. Valid from load time on, in static constructors too.
    static const __m128 sSSEZero;
    static const __m128 sSSEOne;
    static const __m128 sSSEMinusOne;
    static const __m128 sSSETwo;
    static const __m128 sSSEThree;
    static const __m128 sSSEFour;
    static const __m128 sSSEHalf;
    static const __m128 sSSEQuarter;
    static const __m128 sSSEPi;
    static const __m128 sSSETwoPi;
    static const __m128 sSSEHalfPi;
    static const __m128 sSSEInvPi;    ///< 1 / pi
    static const __m128 sSSESqrt2;    ///< square root of 2
    static const __m128 sSSEEpsilon;  ///< from 1 to the next larger float
    static const __m128 sSSEMin;      ///< smallest positive normal float
    static const __m128 sSSEMax;      ///< largest finite float
    static const __m128 sSSEInfinity;
};

}  // namespace ky

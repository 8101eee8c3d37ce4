#include "ky/kyMathUtils.h"

#include <cfloat>
#include <clocale>
#include <iterator>
#include <limits>
#include <numbers>

#include <emmintrin.h>

namespace ky {
namespace {

// 20 digits, 6 separators and the terminator.
char sDigits[27];
char sSeparator = 0;  // 0 until the first use

constexpr __m128 FourTimes(float value) noexcept
{
    return __m128{value, value, value, value};
}

// Lanes as in the names of the masks, the highest first.
__m128 LaneMask(int lane3, int lane2, int lane1, int lane0)
{
    return _mm_castsi128_ps(_mm_set_epi32(lane3, lane2, lane1, lane0));
}

char LocaleSeparator()
{
    // kept: one byte, also of a separator that has several.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): callers take turns
    const char separator = *std::localeconv()->thousands_sep;
    return separator != 0 ? separator : ',';
}

}  // namespace

// Neither const nor given a value: the loader may move them into an executable that is not position
// independent, and the library must then fill that copy.
__m128 kyMathUtils::sSSE_FF_FF_FF_FF;
__m128 kyMathUtils::sSSE_0_FF_FF_FF;
__m128 kyMathUtils::sSSE_FF_0_FF_FF;
__m128 kyMathUtils::sSSE_FF_FF_0_FF;
__m128 kyMathUtils::sSSE_FF_FF_FF_0;
__m128 kyMathUtils::sSSE_0_0_0_FF;
__m128 kyMathUtils::sSSE_0_0_FF_0;
__m128 kyMathUtils::sSSE_0_FF_0_0;
__m128 kyMathUtils::sSSE_FF_0_0_0;
__m128 kyMathUtils::sSSE_FF_FF_0_0;

constinit const __m128 kyMathUtils::sSSEZero = FourTimes(0.0F);
constinit const __m128 kyMathUtils::sSSEOne = FourTimes(1.0F);
constinit const __m128 kyMathUtils::sSSEMinusOne = FourTimes(-1.0F);
constinit const __m128 kyMathUtils::sSSETwo = FourTimes(2.0F);
constinit const __m128 kyMathUtils::sSSEThree = FourTimes(3.0F);
constinit const __m128 kyMathUtils::sSSEFour = FourTimes(4.0F);
constinit const __m128 kyMathUtils::sSSEHalf = FourTimes(0.5F);
constinit const __m128 kyMathUtils::sSSEQuarter = FourTimes(0.25F);
constinit const __m128 kyMathUtils::sSSEPi = FourTimes(std::numbers::pi_v<float>);
constinit const __m128 kyMathUtils::sSSETwoPi = FourTimes(2.0F * std::numbers::pi_v<float>);
constinit const __m128 kyMathUtils::sSSEHalfPi = FourTimes(0.5F * std::numbers::pi_v<float>);
constinit const __m128 kyMathUtils::sSSEInvPi = FourTimes(std::numbers::inv_pi_v<float>);
constinit const __m128 kyMathUtils::sSSESqrt2 = FourTimes(std::numbers::sqrt2_v<float>);
constinit const __m128 kyMathUtils::sSSEEpsilon = FourTimes(FLT_EPSILON);
constinit const __m128 kyMathUtils::sSSEMin = FourTimes(FLT_MIN);
constinit const __m128 kyMathUtils::sSSEMax = FourTimes(FLT_MAX);
constinit const __m128 kyMathUtils::sSSEInfinity =
    FourTimes(std::numeric_limits<float>::infinity());

std::string kyMathUtils::FormatIntegerSeparator(unsigned long value)
{
    if (sSeparator == 0)
        sSeparator = LocaleSeparator();
    char* const end = std::end(sDigits) - 1;
    char* first = end;
    int index = 0;
    do {
        if (index > 0 && index % 3 == 0)
            *--first = sSeparator;
        *--first = static_cast<char>('0' + value % 10);
        value /= 10;
        ++index;
    } while (value > 0);
    return std::string(first, end);
}

void kyMathUtils::InitializeLaneMasks()
{
    sSSE_FF_FF_FF_FF = LaneMask(-1, -1, -1, -1);
    sSSE_0_FF_FF_FF = LaneMask(0, -1, -1, -1);
    sSSE_FF_0_FF_FF = LaneMask(-1, 0, -1, -1);
    sSSE_FF_FF_0_FF = LaneMask(-1, -1, 0, -1);
    sSSE_FF_FF_FF_0 = LaneMask(-1, -1, -1, 0);
    sSSE_0_0_0_FF = LaneMask(0, 0, 0, -1);
    sSSE_0_0_FF_0 = LaneMask(0, 0, -1, 0);
    sSSE_0_FF_0_0 = LaneMask(0, -1, 0, 0);
    sSSE_FF_0_0_0 = LaneMask(-1, 0, 0, 0);
    sSSE_FF_FF_0_0 = LaneMask(-1, -1, 0, 0);
}

}  // namespace ky

// A client of the shared object that reads its data directly: the lane masks, clear before
// initialisation and filled by it, and lane constants that are valid from load time on.
#include "ky/kyMathUtils.h"
#include "ky/kySystem.h"

#include <cstring>

using M = ky::kyMathUtils;

namespace {

int sFaults = 0;

void Expect(const __m128& lanes, const __m128& expected)
{
    sFaults += std::memcmp(&lanes, &expected, sizeof lanes) != 0 ? 1 : 0;
}

/// Lanes from the highest, as in the names.
void CheckMasks(int set)
{
    const auto expect = [](const __m128& mask, int lane3, int lane2, int lane1, int lane0) {
        Expect(mask, _mm_castsi128_ps(_mm_set_epi32(lane3, lane2, lane1, lane0)));
    };
    expect(M::sSSE_FF_FF_FF_FF, set, set, set, set);
    expect(M::sSSE_0_FF_FF_FF, 0, set, set, set);
    expect(M::sSSE_FF_0_FF_FF, set, 0, set, set);
    expect(M::sSSE_FF_FF_0_FF, set, set, 0, set);
    expect(M::sSSE_FF_FF_FF_0, set, set, set, 0);
    expect(M::sSSE_0_0_0_FF, 0, 0, 0, set);
    expect(M::sSSE_0_0_FF_0, 0, 0, set, 0);
    expect(M::sSSE_0_FF_0_0, 0, set, 0, 0);
    expect(M::sSSE_FF_0_0_0, set, 0, 0, 0);
    expect(M::sSSE_FF_FF_0_0, set, set, 0, 0);
}

void CheckConstants()
{
    Expect(M::sSSEMinusOne, _mm_set1_ps(-1.0F));
    Expect(M::sSSEQuarter, _mm_set1_ps(0.25F));
    Expect(M::sSSEPi, _mm_set1_ps(3.14159265358979F));
}

struct EarlyUser {
    EarlyUser() { CheckConstants(); }
} sEarlyUser;

}  // namespace

int main()
{
    CheckMasks(0);
    ky::initializeKySystem(ky::InitType::Light, false);
    CheckMasks(-1);
    CheckConstants();
    ky::terminateKySystem();
    return sFaults;
}

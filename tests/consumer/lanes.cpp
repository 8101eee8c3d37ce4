// A client of the shared object that reads its data directly: the lane masks, clear before
// initialisation and filled by it, and lane constants that are valid from load time on.
#include "ky/kyMathUtils.h"
#include "ky/kySystem.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

using M = ky::kyMathUtils;

namespace {

struct Mask {
    const __m128* mask;
    const char* lanes;  // in memory order, "F" for a lane of set bits
};

const Mask sMasks[] = {
    {&M::sSSE_FF_FF_FF_FF, "FFFF"}, {&M::sSSE_0_FF_FF_FF, "FFF0"}, {&M::sSSE_FF_0_FF_FF, "FF0F"},
    {&M::sSSE_FF_FF_0_FF, "F0FF"},  {&M::sSSE_FF_FF_FF_0, "0FFF"}, {&M::sSSE_0_0_0_FF, "F000"},
    {&M::sSSE_0_0_FF_0, "0F00"},    {&M::sSSE_0_FF_0_0, "00F0"},   {&M::sSSE_FF_0_0_0, "000F"},
    {&M::sSSE_FF_FF_0_0, "00FF"},
};

int sFaults = 0;

void CheckMasks(const char* when, bool filled)
{
    for (const Mask& mask : sMasks) {
        std::uint32_t lanes[4];
        std::memcpy(lanes, mask.mask, sizeof lanes);
        for (int i = 0; i < 4; ++i) {
            const std::uint32_t expected = filled && mask.lanes[i] == 'F' ? 0xFFFFFFFFu : 0u;
            if (lanes[i] == expected)
                continue;
            std::printf("mask %s, lane %d %s: %08x instead of %08x\n", mask.lanes, i, when,
                        lanes[i], expected);
            ++sFaults;
        }
    }
}

bool AllLanesEqual(__m128 lanes, float value)
{
    return _mm_movemask_ps(_mm_cmpeq_ps(lanes, _mm_set1_ps(value))) == 0xF;
}

void CheckConstants(const char* when)
{
    const struct {
        __m128 lanes;
        float value;
    } rows[] = {
        {M::sSSEZero, 0.0F},
        {M::sSSEOne, 1.0F},
        {M::sSSEMinusOne, -1.0F},
        {M::sSSETwo, 2.0F},
        {M::sSSEThree, 3.0F},
        {M::sSSEFour, 4.0F},
        {M::sSSEHalf, 0.5F},
        {M::sSSEQuarter, 0.25F},
        {M::sSSEPi, 3.14159265358979F},
        {M::sSSETwoPi, 6.28318530717959F},
        {M::sSSEHalfPi, 1.57079632679490F},
        {M::sSSEInvPi, 0.318309886183791F},
        {M::sSSESqrt2, 1.41421356237310F},
    };
    for (const auto& row : rows) {
        if (AllLanesEqual(row.lanes, row.value))
            continue;
        std::printf("the constant %g is wrong %s\n", static_cast<double>(row.value), when);
        ++sFaults;
    }
}

struct EarlyUser {
    EarlyUser() { CheckConstants("in a static constructor"); }
} sEarlyUser;

}  // namespace

int main()
{
    CheckMasks("before initialisation", false);
    ky::initializeKySystem(ky::InitType::Light, false);
    CheckMasks("after initialisation", true);
    CheckConstants("after initialisation");
    ky::terminateKySystem();
    return sFaults == 0 ? 0 : 1;
}

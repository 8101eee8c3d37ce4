// A client of the shared object that reads its data directly: the lane masks, clear before
// initialisation and filled by it, and lane constants that are valid from load time on.
#include "ky/kyMathUtils.h"
#include "ky/kySystem.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

using ky::kyMathUtils;

namespace {

struct Mask {
    const char* name;
    const __m128* mask;
    const char* lanes;  // in memory order, "F" for a lane of set bits
};

const Mask sMasks[] = {
    {"sSSE_FF_FF_FF_FF", &kyMathUtils::sSSE_FF_FF_FF_FF, "FFFF"},
    {"sSSE_0_FF_FF_FF", &kyMathUtils::sSSE_0_FF_FF_FF, "FFF0"},
    {"sSSE_FF_0_FF_FF", &kyMathUtils::sSSE_FF_0_FF_FF, "FF0F"},
    {"sSSE_FF_FF_0_FF", &kyMathUtils::sSSE_FF_FF_0_FF, "F0FF"},
    {"sSSE_FF_FF_FF_0", &kyMathUtils::sSSE_FF_FF_FF_0, "0FFF"},
    {"sSSE_0_0_0_FF", &kyMathUtils::sSSE_0_0_0_FF, "F000"},
    {"sSSE_0_0_FF_0", &kyMathUtils::sSSE_0_0_FF_0, "0F00"},
    {"sSSE_0_FF_0_0", &kyMathUtils::sSSE_0_FF_0_0, "00F0"},
    {"sSSE_FF_0_0_0", &kyMathUtils::sSSE_FF_0_0_0, "000F"},
    {"sSSE_FF_FF_0_0", &kyMathUtils::sSSE_FF_FF_0_0, "00FF"},
};

int faults = 0;

void CheckMasks(const char* when, bool filled)
{
    for (const Mask& mask : sMasks) {
        std::uint32_t lanes[4];
        std::memcpy(lanes, mask.mask, sizeof lanes);
        for (int i = 0; i < 4; ++i) {
            const std::uint32_t expected = filled && mask.lanes[i] == 'F' ? 0xFFFFFFFFu : 0u;
            if (lanes[i] == expected)
                continue;
            std::printf("%s, lane %d %s: %08x instead of %08x\n", mask.name, i, when, lanes[i],
                        expected);
            ++faults;
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
        const char* name;
        __m128 lanes;
        float value;
    } rows[] = {
        {"sSSEOne", kyMathUtils::sSSEOne, 1.0F},
        {"sSSEHalf", kyMathUtils::sSSEHalf, 0.5F},
        {"sSSEPi", kyMathUtils::sSSEPi, 3.14159265358979F},
        {"sSSETwo / 2", _mm_mul_ps(kyMathUtils::sSSETwo, kyMathUtils::sSSEHalf), 1.0F},
    };
    for (const auto& row : rows) {
        if (AllLanesEqual(row.lanes, row.value))
            continue;
        std::printf("%s is wrong %s\n", row.name, when);
        ++faults;
    }
}

struct EarlyUser {
    EarlyUser() { CheckConstants("in a static constructor"); }
} earlyUser;

}  // namespace

int main()
{
    CheckMasks("before initialisation", false);
    ky::initializeKySystem(ky::InitType::Light, false);
    CheckMasks("after initialisation", true);
    CheckConstants("after initialisation");
    ky::terminateKySystem();
    return faults == 0 ? 0 : 1;
}

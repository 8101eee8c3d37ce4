#include "ky/kyMathUtils.h"
#include "ky/kyStringUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>

#include <dlfcn.h>
#include <clocale>

static char sSeparatorOfLocale[] = "'_";

/// Stands before the C library's function: no locale with a separator need be installed.
extern "C" lconv* localeconv() noexcept
{
    static const auto system = reinterpret_cast<lconv* (*)()>(::dlsym(RTLD_NEXT, "localeconv"));
    lconv* const conventions = system();  // which the system fills in at every call
    conventions->thousands_sep = sSeparatorOfLocale;
    return conventions;
}

namespace {

using ky::kyMathUtils;
using ky::kyStringUtils;

TEST(NumberText, FillsIntegers)
{
    EXPECT_EQ(kyStringUtils::fromInt(-5, 4), "00-5") << "kept: in front of the sign";
    EXPECT_EQ(kyStringUtils::fromInt(INT_MIN, -4), "-2147483648");
    EXPECT_EQ(kyStringUtils::fromUInt64(ULONG_MAX, 22), "0018446744073709551615");
}

TEST(NumberText, GroupsIntegersAsTheLocaleOfTheFirstUseSays)
{
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(ULONG_MAX), "18'446'744'073'709'551'615");
    sSeparatorOfLocale[0] = '.';
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(1000), "1'000");
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(999), "999");
}

TEST(NumberText, HumanizesNumbers)
{
    // Digits, decimals, binary, big prefixes, small prefixes.
    const auto text = kyStringUtils::humanizeNumberGeneric<double>;
    EXPECT_EQ(text(-0.0, 3, 2, false, true, true), "0");
    EXPECT_EQ(text(-0.0025, 3, 2, false, false, true), "-2.5m");
    EXPECT_EQ(text(-0.001, 3, 2, false, true, false), "-0");
    EXPECT_EQ(text(999970, 3, 2, false, true, false), "1000k");
    EXPECT_EQ(text(2.5, 1, 0, false, true, false), "2");
    EXPECT_EQ(text(1e30, 3, 2, false, false, false), "1000000000000000019884624838656");
    EXPECT_EQ(text(0.75, INT_MAX, INT_MAX, false, true, false), "0.75");
    EXPECT_EQ(text(-HUGE_VAL, 3, 2, false, true, true), "-inf");
    EXPECT_EQ(kyStringUtils::humanizeNumberGeneric(LONG_MIN, 3, 2, false, true, false), "-9.22E");
    EXPECT_EQ(kyStringUtils::humanizeNumberGeneric(1536UL, 3, 2, true, true, false), "1.5k");
}

TEST(NumberText, HumanizesDurations)
{
    // Milliseconds, mode, append the total.
    const auto text = kyStringUtils::humanizeDuration<long>;
    EXPECT_EQ(text(90061001, -1, true), "1d 1h 1m 1s 1ms (90061001ms)");
    EXPECT_EQ(text(3605000, 0, false), "1h 0m 5s");
    EXPECT_EQ(text(-1500, 0, true), "-1s -500ms (18446744073709550116ms)") << "kept";
    EXPECT_EQ(text(61001, 1, false), "1m 1s");
    EXPECT_EQ(text(59999, 2, true), "0ms") << "kept";
    EXPECT_EQ(text(60001, 2, true), "1m (60001ms)");
}

TEST(NumberText, RoundsHalvesAwayFromZero)
{
    // Decimals, separator, keep trailing zeros, integer digits.
    const auto text = kyStringUtils::roundNumber;
    EXPECT_EQ(text(2.675, 2, ',', false, 1), "2,68");
    EXPECT_EQ(text(9.995, 2, '.', false, 1), "10");
    EXPECT_EQ(text(-7.25, 1, '\0', true, 3), "-007.3");
    EXPECT_EQ(text(0.1, 255, '.', false, 1), "0.1");
    EXPECT_EQ(text(std::nan(""), 2, '.', true, 5), "nan");
}

TEST(NumberText, FindsTheNearestFractionWithinTheBound)
{
    const auto fraction = [](double value, long bound) {
        long up = -7;
        long down = -7;
        const bool found = kyStringUtils::computeFractionnalRepresentation(value, up, down, bound);
        return (found ? "" : "none, ") + std::to_string(up) + "/" + std::to_string(down);
    };
    EXPECT_EQ(fraction(-0.75, 4), "-3/4");
    EXPECT_EQ(fraction(3.14159265358979, 100), "311/99");
    EXPECT_EQ(fraction(1e-300, LONG_MAX), "0/1");
    EXPECT_EQ(fraction(0x1p62 + 0x1p10, 5), "4611686018427388928/1");
    EXPECT_EQ(fraction(0.5, 0), "none, 0/1");
    EXPECT_EQ(fraction(std::nan(""), 5), "none, 0/1");
}

}  // namespace

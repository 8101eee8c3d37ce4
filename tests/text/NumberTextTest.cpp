#include "ky/kyStringUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>

namespace {

using ky::kyStringUtils;

TEST(NumberText, FillsIntegersInFrontOfTheSign)
{
    EXPECT_EQ(kyStringUtils::fromInt(-5, 4), "00-5");
    EXPECT_EQ(kyStringUtils::fromInt(1234, 3), "1234");
    EXPECT_EQ(kyStringUtils::fromInt(INT_MIN, -4), "-2147483648");
    EXPECT_EQ(kyStringUtils::fromUInt64(ULONG_MAX, 22), "0018446744073709551615");
}

TEST(NumberText, HumanizesNumbers)
{
    // Digits, decimals, binary, big prefixes, small prefixes.
    const auto text = kyStringUtils::humanizeNumberGeneric<double>;
    EXPECT_EQ(text(-0.0, 3, 2, false, true, true), "0");
    EXPECT_EQ(text(-0.0025, 3, 2, false, false, true), "-2.5m");
    EXPECT_EQ(text(-0.001, 3, 2, false, true, false), "-0");
    EXPECT_EQ(text(0x1p-11, 3, 0, true, false, true), "512\xC2\xB5");
    EXPECT_EQ(text(999970, 3, 2, false, true, false), "1000k");
    EXPECT_EQ(text(2.5, 1, 0, false, true, false), "2");
    EXPECT_EQ(text(1.5e27, 3, 2, false, true, false), "1500Y");
    EXPECT_EQ(text(1e30, 3, 2, false, false, false), "1000000000000000019884624838656");
    EXPECT_EQ(text(0.75, INT_MAX, INT_MAX, false, true, false), "0.75");
    EXPECT_EQ(text(-HUGE_VAL, 3, 2, false, true, true), "-inf");
    EXPECT_EQ(kyStringUtils::humanizeNumberGeneric(LONG_MIN, 3, 2, false, true, false), "-9.22E");
    EXPECT_EQ(kyStringUtils::humanizeNumberGeneric(ULONG_MAX, 3, 2, true, true, false), "16E");
}

TEST(NumberText, HumanizesDurations)
{
    // Milliseconds, mode, append the total.
    const auto text = kyStringUtils::humanizeDuration<long>;
    EXPECT_EQ(text(0, 0, true), "0ms");
    EXPECT_EQ(text(90061001, -1, true), "1d 1h 1m 1s 1ms (90061001ms)");
    EXPECT_EQ(text(-1500, 0, true), "-1s -500ms (18446744073709550116ms)");
    EXPECT_EQ(text(1001, 1, false), "1s 1ms");
    EXPECT_EQ(text(61001, 1, false), "1m 1s");
    EXPECT_EQ(text(3661001, 1, false), "1h 1m");
    EXPECT_EQ(text(59999, 2, true), "0ms");
    EXPECT_EQ(text(60001, 2, true), "1m (60001ms)");
}

TEST(NumberText, RoundsHalvesAwayFromZero)
{
    // Decimals, separator, keep trailing zeros, integer digits.
    const auto text = kyStringUtils::roundNumber;
    EXPECT_EQ(text(-2.5, 0, '.', false, 1), "-3");
    EXPECT_EQ(text(2.675, 2, ',', false, 1), "2,68");
    EXPECT_EQ(text(9.995, 2, '.', false, 1), "10");
    EXPECT_EQ(text(-7.25, 1, '\0', true, 3), "-007.3");
    EXPECT_EQ(text(0.25, 3, '.', true, 0), "0.250");
    EXPECT_EQ(text(-0.004, 2, '.', true, 1), "0.00");
    EXPECT_EQ(text(0.1, 255, '.', false, 1), "0.1");
    EXPECT_EQ(text(std::nan(""), 2, '.', true, 5), "nan");
}

TEST(NumberText, FindsTheNearestFractionWithinTheBound)
{
    const auto fraction = [](double value, long bound) {
        long numerator = -7;
        long denominator = -7;
        const bool found =
            kyStringUtils::computeFractionnalRepresentation(value, numerator, denominator, bound);
        return (found ? "" : "none, ") + std::to_string(numerator) + "/" +
               std::to_string(denominator);
    };
    EXPECT_EQ(fraction(-0.75, 4), "-3/4");
    EXPECT_EQ(fraction(0.1, LONG_MAX), "1/10");
    EXPECT_EQ(fraction(3.14159265358979, 100), "311/99");
    EXPECT_EQ(fraction(3.14159265358979, 113), "355/113");
    EXPECT_EQ(fraction(1e-300, LONG_MAX), "0/1");
    EXPECT_EQ(fraction(0x1p62 + 0x1p10, 5), "4611686018427388928/1");
    EXPECT_EQ(fraction(-0x1p63, 5), "none, 0/1");
    EXPECT_EQ(fraction(0.5, 0), "none, 0/1");
    EXPECT_EQ(fraction(std::nan(""), 5), "none, 0/1");
}

}  // namespace

#include "ky/kyStringUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <string>

namespace {

using ky::kyStringUtils;

constexpr double sInfinity = std::numeric_limits<double>::infinity();

TEST(NumberText, FillsIntegersInFrontOfTheSign)
{
    EXPECT_EQ(kyStringUtils::fromInt(7, 3), "007");
    EXPECT_EQ(kyStringUtils::fromInt(-5, 4), "00-5");
    EXPECT_EQ(kyStringUtils::fromInt(-5, -4), "-5");
    EXPECT_EQ(kyStringUtils::fromInt(1234, 3), "1234");
    EXPECT_EQ(kyStringUtils::fromInt(INT_MIN, 0), "-2147483648");
    EXPECT_EQ(kyStringUtils::fromUInt64(ULONG_MAX, 22), "0018446744073709551615");
}

TEST(NumberText, HumanizesReals)
{
    const struct {
        double value;
        int maxDigits, maxDecimals;
        bool binary, big, small;
        const char* expected;
    } rows[] = {
        {0, 3, 2, false, true, true, "0"},
        {-0.0, 3, 2, false, true, true, "0"},
        {-0.0025, 3, 2, false, false, true, "-2.5m"},
        {0.0025, 5, 4, false, true, false, "0.0025"},
        {-0.001, 3, 2, false, true, false, "-0"},
        {1.5e-6, 3, 2, false, true, true, "1.5\xC2\xB5"},
        {9.9e-25, 3, 2, false, false, true, "0"},
        {-9.9e-25, 3, 2, false, false, true, "-0"},
        {0x1p-11, 3, 0, true, false, true, "512\xC2\xB5"},
        {0x1p-80, 3, 2, true, false, true, "1y"},
        {999.97, 3, 2, false, true, false, "1000"},
        {999970, 3, 2, false, true, false, "1000k"},
        {2.5, 1, 0, false, true, false, "2"},
        {2.6, 1, 0, false, true, false, "3"},
        {100, 3, 2, false, true, false, "100"},
        {1023, 4, 2, true, true, false, "1023"},
        {1e24, 3, 2, false, true, false, "1Y"},
        {1.5e27, 3, 2, false, true, false, "1500Y"},
        {0x1p80, 3, 2, true, true, false, "1Y"},
        {1e30, 3, 2, false, false, false, "1000000000000000019884624838656"},
        {1234.5, 3, 2, false, false, false, "1234"},
        {1.75, INT_MIN, INT_MIN, false, true, false, "2"},
        {0.75, INT_MAX, INT_MAX, false, true, false, "0.75"},
        {1.5, INT_MAX, 400, false, true, false, "1.5"},
        {std::nan(""), 3, 2, false, true, true, "nan"},
        {-std::nan(""), 3, 2, false, true, true, "nan"},
        {sInfinity, 3, 2, false, true, true, "inf"},
        {-sInfinity, 3, 2, false, true, true, "-inf"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(kyStringUtils::humanizeNumberGeneric(row.value, row.maxDigits, row.maxDecimals,
                                                       row.binary, row.big, row.small),
                  row.expected)
            << row.value << ' ' << row.maxDigits << ' ' << row.maxDecimals;
    }
}

TEST(NumberText, HumanizesTheWholeRangeOfIntegers)
{
    const auto signedText = [](long value) {
        return kyStringUtils::humanizeNumberGeneric<long>(value, 3, 2, false, true, false);
    };
    const auto unsignedText = [](unsigned long value, bool binary) {
        return kyStringUtils::humanizeNumberGeneric<unsigned long>(value, 3, 2, binary, true,
                                                                   false);
    };
    EXPECT_EQ(signedText(LONG_MIN), "-9.22E");
    EXPECT_EQ(unsignedText(1536, true), "1.5k");
    EXPECT_EQ(unsignedText(1000, false), "1k");
    EXPECT_EQ(unsignedText(1234567, false), "1.23M");
    EXPECT_EQ(unsignedText(ULONG_MAX, true), "16E");  // 2^64 as a double
}

TEST(NumberText, HumanizesDurations)
{
    const struct {
        long milliseconds;
        int mode;
        bool appendTotal;
        const char* expected;
    } rows[] = {
        {0, 0, true, "0ms"},
        {999, 0, true, "999ms"},
        {999, 2, false, "0ms"},
        {59999, 2, true, "0ms"},
        {60001, 2, true, "1m (60001ms)"},
        {1001, 1, false, "1s 1ms"},
        {61001, 1, false, "1m 1s"},
        {3661001, 1, false, "1h 1m"},
        {3600000, 0, false, "1h"},
        {3605000, 0, false, "1h 0m 5s"},
        {3605000, 7, false, "1h 0m 5s"},
        {90061001, 0, false, "1d 1h 1m 1s 1ms"},
        {90061001, 0, true, "1d 1h 1m 1s 1ms (90061001ms)"},
        {90061001, -1, true, "1d 1h 1m 1s 1ms (90061001ms)"},
        {90061001, 2, false, "1d 1h 1m"},
        {-1500, 0, true, "-1s -500ms (18446744073709550116ms)"},
        {LONG_MAX, 1, false, "106751991167d 7h 12m"},
        {LONG_MIN, 2, false, "-106751991167d -7h -12m"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(
            kyStringUtils::humanizeDuration<long>(row.milliseconds, row.mode, row.appendTotal),
            row.expected)
            << row.milliseconds << ' ' << row.mode;
    }
}

TEST(NumberText, RoundsHalvesAwayFromZero)
{
    const struct {
        double value;
        unsigned char maxDecimals;
        char separator;
        bool keepTrailingZeros;
        unsigned char minIntegerDigits;
        const char* expected;
    } rows[] = {
        {2.5, 0, '.', false, 1, "3"},           {-2.5, 0, '.', false, 1, "-3"},
        {2.675, 2, '.', false, 1, "2.68"},      {0.125, 2, ',', false, 1, "0,13"},
        {9.995, 2, '.', true, 1, "10.00"},      {9.995, 2, '.', false, 1, "10"},
        {99.5, 0, '.', false, 3, "100"},        {-7.25, 1, '\0', true, 3, "-007.3"},
        {0.25, 3, '.', true, 0, "0.250"},       {-0.004, 2, '.', true, 1, "0.00"},
        {-0.0, 0, '.', false, 1, "0"},          {1e21, 1, '.', false, 1, "1000000000000000000000"},
        {5e-324, 255, '.', false, 1, "0"},      {0.1, 255, '.', false, 1, "0.1"},
        {std::nan(""), 2, '.', true, 5, "nan"}, {-sInfinity, 2, '.', true, 5, "-inf"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(kyStringUtils::roundNumber(row.value, row.maxDecimals, row.separator,
                                             row.keepTrailingZeros, row.minIntegerDigits),
                  row.expected);
    }
}

TEST(NumberText, FindsTheNearestFractionWithinTheBound)
{
    const struct {
        double value;
        long bound;
        bool found;
        long numerator, denominator;
    } rows[] = {
        {0, 1, true, 0, 1},
        {-0.75, 4, true, -3, 4},
        {0.75, 3, true, 2, 3},
        {0.1, LONG_MAX, true, 1, 10},
        {1.0 / 3, 1000, true, 1, 3},
        {3.14159265358979, 1, true, 3, 1},
        {3.14159265358979, 100, true, 311, 99},
        {3.14159265358979, 112, true, 333, 106},
        {3.14159265358979, 113, true, 355, 113},
        {0x1p-53, LONG_MAX, true, 1, 1L << 53},
        {1e-300, LONG_MAX, true, 0, 1},
        {0x1p62 + 0x1p10, 5, true, (1L << 62) + 1024, 1},
        {-0x1p62, 5, true, -(1L << 62), 1},
        {0x1p63, 5, false, 0, 1},
        {-0x1p63, 5, false, 0, 1},
        {0.5, 0, false, 0, 1},
        {std::nan(""), 5, false, 0, 1},
        {sInfinity, 5, false, 0, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        long numerator = -7;
        long denominator = -7;
        EXPECT_EQ(kyStringUtils::computeFractionnalRepresentation(row.value, numerator, denominator,
                                                                  row.bound),
                  row.found);
        EXPECT_EQ(numerator, row.numerator);
        EXPECT_EQ(denominator, row.denominator);
    }
}

}  // namespace

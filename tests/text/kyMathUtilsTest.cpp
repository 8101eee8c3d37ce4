#include "ky/kyMathUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>

namespace {
char* separatorOfLocale = nullptr;  // null: what the system says
}  // namespace

/// Stands before the C library's function: no locale with a separator need be installed.
extern "C" lconv* localeconv() noexcept
{
    static const auto systemFunction =
        reinterpret_cast<lconv* (*)()>(::dlsym(RTLD_NEXT, "localeconv"));
    static lconv changed;
    if (separatorOfLocale == nullptr)
        return systemFunction();
    changed = *systemFunction();
    changed.thousands_sep = separatorOfLocale;
    return &changed;
}

namespace {

using ky::kyMathUtils;

TEST(FormatIntegerSeparator, GroupsDigitsByThreeFromTheRight)
{
    const struct {
        unsigned long value;
        const char* text;
    } rows[] = {
        {0, "0"},
        {9, "9"},
        {10, "10"},
        {999, "999"},
        {1000, "1,000"},
        {99999, "99,999"},
        {100000, "100,000"},
        {1234567, "1,234,567"},
        {5, "5"},  // shorter than the text before it
        {ULONG_MAX, "18,446,744,073,709,551,615"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(row.value), row.text);
}

TEST(FormatIntegerSeparatorDeathTest, TakesOneByteFromTheLocaleOnFirstUseAndKeepsIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which nothing is fixed yet
    const auto check = [](const char* inForce, const char* later, const char* expected) {
        std::string first = inForce;
        std::string second = later;
        separatorOfLocale = first.data();
        if (kyMathUtils::FormatIntegerSeparator(1000000) != expected)
            std::_Exit(1);
        separatorOfLocale = second.data();
        if (kyMathUtils::FormatIntegerSeparator(1000000) != expected)
            std::_Exit(2);
        std::_Exit(0);
    };
    EXPECT_EXIT(check(".", "'", "1.000.000"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(check("", "'", "1,000,000"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(check("'_", "", "1'000'000"), ::testing::ExitedWithCode(0), "");
}

/// The value in all four lanes; not a number when they differ.
float Lane(const __m128& constant)
{
    float lanes[4];
    std::memcpy(lanes, &constant, sizeof lanes);
    for (const float lane : lanes) {
        if (std::memcmp(&lane, lanes, sizeof lane) != 0)
            return std::nanf("");
    }
    return lanes[0];
}

TEST(LaneConstants, HoldTheirValueInEveryLane)
{
    using M = kyMathUtils;
    const float one = Lane(M::sSSEOne);
    EXPECT_EQ(one, 1.0F);
    EXPECT_EQ(Lane(M::sSSEZero), one - one);
    EXPECT_FALSE(std::signbit(Lane(M::sSSEZero)));
    EXPECT_EQ(Lane(M::sSSEMinusOne), -one);
    EXPECT_EQ(Lane(M::sSSETwo), one + one);
    EXPECT_EQ(Lane(M::sSSEThree), Lane(M::sSSETwo) + one);
    EXPECT_EQ(Lane(M::sSSEFour), Lane(M::sSSEThree) + one);
    EXPECT_EQ(Lane(M::sSSEHalf), one / Lane(M::sSSETwo));
    EXPECT_EQ(Lane(M::sSSEQuarter), one / Lane(M::sSSEFour));

    const double pi = std::acos(-1.0);
    EXPECT_EQ(Lane(M::sSSEPi), static_cast<float>(pi));
    EXPECT_EQ(Lane(M::sSSETwoPi), static_cast<float>(2 * pi));
    EXPECT_EQ(Lane(M::sSSEHalfPi), static_cast<float>(pi / 2));
    EXPECT_EQ(Lane(M::sSSEInvPi), static_cast<float>(1 / pi));
    EXPECT_EQ(Lane(M::sSSESqrt2), static_cast<float>(std::sqrt(2.0)));
}

TEST(LaneConstants, MarkTheLimitsOfAFloat)
{
    using M = kyMathUtils;
    EXPECT_EQ(1.0F + Lane(M::sSSEEpsilon), std::nextafterf(1.0F, 2.0F));
    EXPECT_EQ(std::fpclassify(Lane(M::sSSEMin)), FP_NORMAL);
    EXPECT_GT(Lane(M::sSSEMin), 0.0F);
    EXPECT_EQ(std::fpclassify(std::nextafterf(Lane(M::sSSEMin), 0.0F)), FP_SUBNORMAL);
    EXPECT_EQ(std::fpclassify(Lane(M::sSSEMax)), FP_NORMAL);
    EXPECT_EQ(std::nextafterf(Lane(M::sSSEMax), Lane(M::sSSEInfinity)), Lane(M::sSSEInfinity));
    EXPECT_GT(Lane(M::sSSEInfinity), Lane(M::sSSEMax));
}

}  // namespace

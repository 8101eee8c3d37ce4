#include "ky/kyMathUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <string>

#include <dlfcn.h>

namespace {
char* sSeparatorOfLocale = nullptr;  // null: what the system says
}  // namespace

/// Stands before the C library's function: no locale with a separator need be installed.
extern "C" lconv* localeconv() noexcept
{
    static const auto systemFunction =
        reinterpret_cast<lconv* (*)()>(::dlsym(RTLD_NEXT, "localeconv"));
    static lconv changed;
    if (sSeparatorOfLocale == nullptr)
        return systemFunction();
    changed = *systemFunction();
    changed.thousands_sep = sSeparatorOfLocale;
    return &changed;
}

namespace {

using ky::kyMathUtils;

TEST(FormatIntegerSeparator, GroupsDigitsByThreeFromTheRight)
{
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(0), "0");
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(ULONG_MAX), "18,446,744,073,709,551,615");
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(1000), "1,000");
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(999), "999");
}

TEST(FormatIntegerSeparatorDeathTest, TakesOneByteFromTheLocaleOnFirstUseAndKeepsIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which nothing is fixed yet
    const auto check = [](const char* inForce, const char* later, const char* expected) {
        std::string first = inForce;
        std::string second = later;
        sSeparatorOfLocale = first.data();
        if (kyMathUtils::FormatIntegerSeparator(1000000) != expected)
            std::_Exit(1);
        sSeparatorOfLocale = second.data();
        if (kyMathUtils::FormatIntegerSeparator(1000000) != expected)
            std::_Exit(2);
        std::_Exit(0);
    };
    EXPECT_EXIT(check(".", "'", "1.000.000"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(check("", "'", "1,000,000"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(check("'_", "", "1'000'000"), ::testing::ExitedWithCode(0), "");
}

TEST(LaneConstants, MarkTheLimitsOfAFloat)
{
    using M = kyMathUtils;
    const auto lane = [](const __m128& constant) { return _mm_cvtss_f32(constant); };
    EXPECT_EQ(1.0F + lane(M::sSSEEpsilon), std::nextafterf(1.0F, 2.0F));
    EXPECT_TRUE(std::isnormal(lane(M::sSSEMin)));
    EXPECT_FALSE(std::isnormal(std::nextafterf(lane(M::sSSEMin), 0.0F)));
    EXPECT_EQ(std::nextafterf(lane(M::sSSEInfinity), 0.0F), lane(M::sSSEMax));
    EXPECT_TRUE(std::isinf(lane(M::sSSEInfinity)));
}

}  // namespace

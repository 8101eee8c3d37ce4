#include "ky/kyMathUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <string>

#include <dlfcn.h>

static char* sSeparatorOfLocale = nullptr;  // null: what the system says

/// Stands before the C library's function: no locale with a separator need be installed.
extern "C" lconv* localeconv() noexcept
{
    static const auto system = reinterpret_cast<lconv* (*)()>(::dlsym(RTLD_NEXT, "localeconv"));
    lconv* const conventions = system();  // which the system fills in at every call
    if (sSeparatorOfLocale != nullptr)
        conventions->thousands_sep = sSeparatorOfLocale;
    return conventions;
}

using ky::kyMathUtils;

TEST(FormatIntegerSeparator, GroupsDigitsByThreeFromTheRight)
{
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(999), "999");
    EXPECT_EQ(kyMathUtils::FormatIntegerSeparator(ULONG_MAX), "18,446,744,073,709,551,615");
}

TEST(FormatIntegerSeparatorDeathTest, TakesOneByteFromTheLocaleOnFirstUseAndKeepsIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which nothing is fixed yet
    const auto check = [](std::string inForce, std::string later, const std::string& expected) {
        sSeparatorOfLocale = inForce.data();
        const bool isRight = kyMathUtils::FormatIntegerSeparator(1000000) == expected;
        sSeparatorOfLocale = later.data();
        std::_Exit(isRight && kyMathUtils::FormatIntegerSeparator(1000000) == expected ? 0 : 1);
    };
    EXPECT_EXIT(check("", "'", "1,000,000"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(check("'_", "", "1'000'000"), ::testing::ExitedWithCode(0), "");
}

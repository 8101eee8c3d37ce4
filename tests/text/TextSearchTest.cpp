#include "ky/kyStringUtils.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using ky::kyStringUtils;
using std::string_literals::operator""s;

constexpr std::size_t sNone = std::string::npos;

TEST(TextSearch, RecognisesBooleansInAnyCase)
{
    const auto parsed = [](const std::string& text) {
        bool result = true;
        return !kyStringUtils::parseBool(text, result) ? 2 + !result : result;
    };
    for (const char* const text : {"TRUE", "t", "1", "On"})
        EXPECT_EQ(parsed(text), 1) << text;
    for (const char* const text : {"false", "F", "0", "oFF"})
        EXPECT_EQ(parsed(text), 0) << text;
    for (const std::string& text : {""s, " true"s, "yes"s, "true\0"s})
        EXPECT_EQ(parsed(text), 2) << text;
    for (const std::string& text : {"\x1F"s, "a\0"s, "\x7F"s})
        EXPECT_TRUE(kyStringUtils::ContainsAsciiNonPrintableChar(text));
    EXPECT_FALSE(kyStringUtils::ContainsAsciiNonPrintableChar(" ~\x80\xFF"));
}

TEST(TextSearch, ReplacesWithoutLookingAtWhatItInserted)
{
    std::string text = "aaab";
    kyStringUtils::ReplaceAllOccurrences(text, "aa", "baa");
    EXPECT_EQ(text, "baaab");
    kyStringUtils::ReplaceAllOccurrences(text, "", "x");
    kyStringUtils::ReplaceAllOccurrences(text, "aaab", text);
    EXPECT_EQ(text, "bbaaab");
    text = "<a href=\"x\">'&amp;'\0é"s;
    kyStringUtils::EscapeXmlString(text);
    EXPECT_EQ(text, "&lt;a href=&quot;x&quot;&gt;&apos;&amp;amp;&apos;\0é"s);
    text = "--";
    kyStringUtils::Join(std::vector<std::string>{"", "b", ""}, text, text);
    EXPECT_EQ(text, "--b--");
}

TEST(TextSearch, FindsInBothWaysFromAPosition)
{
    const std::string text = "aBc ABC é";
    const auto find = kyStringUtils::FindCaseInsensitive;
    EXPECT_FALSE(kyStringUtils::Contains(text, "abc", true));
    EXPECT_TRUE(kyStringUtils::Contains(text, "abc", false));
    EXPECT_EQ(find(text, "abc", 1), 4u);
    EXPECT_EQ(find(text, "É", 0), sNone);
    EXPECT_EQ(find(text, "", 10), 10u);
    EXPECT_EQ(find(text, "", 11), sNone);
    EXPECT_TRUE(kyStringUtils::StartsWith(nullptr, ""));
}

TEST(TextSearch, FindsPatternsAcrossTwoBuffersAsInOne)
{
    const std::string text = "aabaabaaab";
    for (std::size_t split = 0; split <= text.size(); ++split) {
        const std::string first = text.substr(0, split);
        const std::string second = text.substr(split);
        for (const std::string& pattern : {"aaab"s, "abaabaaa"s, "b"s, "bb"s, text + "a", ""s}) {
            const char* found = "stale";
            const std::size_t place = pattern.empty() ? sNone : text.find(pattern);
            const char* const expected = place == sNone  ? nullptr
                                         : place < split ? &first[place]
                                                         : &second[place - split];
            EXPECT_EQ(kyStringUtils::FindFirstAstrideBuffers(
                          first.data(), first.data() + first.size(), second.data(),
                          second.data() + second.size(), pattern.data(),
                          pattern.data() + pattern.size(), found),
                      place != sNone);
            EXPECT_EQ(found, expected) << first << '|' << second << ": " << pattern;
        }
    }
}

TEST(TextSearch, OrdersByCodeUnitsWhateverTheFlag)
{
    for (const bool flag : {false, true}) {
        EXPECT_TRUE(kyStringUtils::CompareUTF8Natural("a10", "a9", flag));
        EXPECT_TRUE(kyStringUtils::CompareUTF8Natural("B", "a", flag));
        EXPECT_FALSE(kyStringUtils::CompareUTF8Natural("é", "z", flag));
        EXPECT_TRUE(kyStringUtils::CompareUTF16Natural(L"B10", 3, L"a9", 2, flag));
    }
}

TEST(TextSearch, ComparesVersions)
{
    const auto order = kyStringUtils::compareSoftwareVersion;
    EXPECT_EQ(order("1_2-3", "1+2.3.0", 0), 0);
    EXPECT_EQ(order("1.9", "1.010", 0), -1);
    EXPECT_EQ(order("100000000000000000000", "99999999999999999999", 0), 1);
    EXPECT_EQ(order("1.0", "1.0-rc1", 0), 1);
    EXPECT_EQ(order("1.0-rc9", "1.0-rc10", 0), -1);
    EXPECT_EQ(order("1.2.3", "1.2.4", 2), 0);
    EXPECT_EQ(order("1.2.3", "1.2.4", 3), -1);
}

}  // namespace

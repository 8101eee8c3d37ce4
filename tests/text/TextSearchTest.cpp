#include "ky/kyStringUtils.h"

#include "text/Ascii.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using ky::kyStringUtils;
using std::string_literals::operator""s;

constexpr std::size_t sNone = std::string::npos;

TEST(AsciiRules, LeaveAllOtherBytesAlone)
{
    for (int value = -128; value < 128; ++value) {
        const char c = static_cast<char>(value);
        const bool isSpace = value == ' ' || (value >= 9 && value <= 13);
        EXPECT_EQ(ky::impl::IsAsciiSpace(c), isSpace) << value;
        const bool isUpper = value >= 'A' && value <= 'Z';
        EXPECT_EQ(ky::impl::ToAsciiLower(c), isUpper ? c + 32 : c) << value;
    }
}

TEST(TextSearch, RecognisesBooleansInAnyCase)
{
    const struct {
        std::string text;
        std::optional<bool> expected;
    } rows[] = {{"true", true},   {"TRUE", true},    {"t", true},     {"1", true},    {"On", true},
                {"false", false}, {"F", false},      {"0", false},    {"oFF", false}, {"", {}},
                {" true", {}},    {"true ", {}},     {"true\0"s, {}}, {"yes", {}},    {"no", {}},
                {"01", {}},       {"falsefalse", {}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        for (const bool before : {false, true}) {
            bool result = before;
            EXPECT_EQ(kyStringUtils::parseBool(row.text, result), row.expected.has_value());
            EXPECT_EQ(result, row.expected.value_or(before));
            EXPECT_EQ(kyStringUtils::parseBool(row.text.data(), row.text.size(), result),
                      row.expected.has_value());
        }
    }
    bool result = true;
    EXPECT_FALSE(kyStringUtils::parseBool(nullptr, 0, result));
    EXPECT_TRUE(kyStringUtils::parseBool("off trail", 3, result));
    EXPECT_FALSE(result);
}

TEST(TextSearch, EscapesXmlOnce)
{
    std::string text = "<a href=\"x\">'&amp;'</a>\0é"s;
    kyStringUtils::EscapeXmlString(text);
    EXPECT_EQ(text, "&lt;a href=&quot;x&quot;&gt;&apos;&amp;amp;&apos;&lt;/a&gt;\0é"s);
    std::string plain = "plain";
    kyStringUtils::EscapeXmlString(plain);
    EXPECT_EQ(plain, "plain");
}

TEST(TextSearch, TellsControlCharactersFromText)
{
    for (const std::string& text : {"\x1F"s, "a\tb"s, "a\n"s, "a\0"s, "\x7F"s})
        EXPECT_TRUE(kyStringUtils::ContainsAsciiNonPrintableChar(text));
    for (const std::string& text : {""s, " ~"s, "\x80\xFF"s, "é"s})
        EXPECT_FALSE(kyStringUtils::ContainsAsciiNonPrintableChar(text));
    EXPECT_FALSE(kyStringUtils::ContainsAsciiNonPrintableChar(nullptr, 0));
    EXPECT_FALSE(kyStringUtils::ContainsAsciiNonPrintableChar("ab\n", 2));
}

TEST(TextSearch, ReplacesWithoutLookingAtWhatItInserted)
{
    const struct {
        std::string text, what, with, expected;
    } rows[] = {{"aaa", "a", "aa", "aaaaaa"}, {"aaaaa", "aa", "b", "bba"},
                {"abc", "", "x", "abc"},      {"abcabc", "bc", "", "aa"},
                {"abc", "abcd", "x", "abc"},  {"a\0b"s, "\0"s, "-", "a-b"}};
    for (auto row : rows) {
        kyStringUtils::ReplaceAllOccurrences(row.text, row.what, row.with);
        EXPECT_EQ(row.text, row.expected);
    }
    std::string same = "ab";
    kyStringUtils::ReplaceAllOccurrences(same, "b", same);
    EXPECT_EQ(same, "aab");
    kyStringUtils::ReplaceAllOccurrences(same, same, "c");
    EXPECT_EQ(same, "c");
}

TEST(TextSearch, JoinsInPlaceOfTheOutput)
{
    std::string output = "old";
    kyStringUtils::Join(std::vector<std::string>{"", "b", ""}, output, "--"s);
    EXPECT_EQ(output, "--b--");
    output = "+";
    kyStringUtils::Join(std::vector<std::string>{"a", "b"}, output, output);
    EXPECT_EQ(output, "a+b");
    kyStringUtils::Join(std::vector<std::string>{}, output, "-"s);
    EXPECT_EQ(output, "");
}

TEST(TextSearch, FindsInBothWaysFromAPosition)
{
    const std::string text = "aBc ABC é";
    const struct {
        std::string what;
        std::size_t from, sensitive, insensitive;
    } rows[] = {{"abc", 0, sNone, 0},   {"ABC", 0, 4, 0},
                {"abc", 1, sNone, 4},   {"abc", 5, sNone, sNone},
                {"É", 0, sNone, sNone}, {"é", 0, 8, 8},
                {"", 0, 0, 0},          {"", 10, 10, 10},
                {"", 11, sNone, sNone}, {"x", sNone, sNone, sNone}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(kyStringUtils::FindCaseSensitive(text, row.what, row.from), row.sensitive);
        EXPECT_EQ(kyStringUtils::FindCaseInsensitive(text, row.what, row.from), row.insensitive);
    }
    EXPECT_FALSE(kyStringUtils::Contains(text, "abc", true));
    EXPECT_TRUE(kyStringUtils::Contains(text, "abc", false));
    EXPECT_TRUE(kyStringUtils::Contains("", "", true));
    EXPECT_TRUE(kyStringUtils::Contains("", "", false));
}

TEST(TextSearch, ComparesStartsOfEveryKindOfText)
{
    EXPECT_TRUE(kyStringUtils::StartsWith("abc", "ab"));
    EXPECT_TRUE(kyStringUtils::StartsWith(nullptr, ""));
    EXPECT_FALSE(kyStringUtils::StartsWith("abc"s, "abcd"));
    EXPECT_TRUE(kyStringUtils::StartsWith(std::string_view("abc"), "abc"s));
    EXPECT_TRUE(kyStringUtils::StartsWith("abc"s, std::string_view()));
}

TEST(TextSearch, FindsPatternsAcrossTwoBuffersAsInOne)
{
    // Every split of a text, with every pattern, against a search in the whole.
    const std::string text = "aabaabaaab";
    for (std::size_t split = 0; split <= text.size(); ++split) {
        const std::string first = text.substr(0, split);
        const std::string second = text.substr(split);
        const char* const begin1 = first.empty() ? nullptr : first.data();
        const char* const begin2 = second.empty() ? nullptr : second.data();
        for (const std::string& pattern :
             {"a"s, "ab"s, "aaab"s, "baa"s, "abaabaaa"s, "b"s, text, "bb"s, text + "a", ""s}) {
            SCOPED_TRACE(first + "|" + second + ": " + pattern);
            const char* found = "stale";
            const std::size_t expected = pattern.empty() ? sNone : text.find(pattern);
            EXPECT_EQ(kyStringUtils::FindFirstAstrideBuffers(
                          begin1, begin1 + first.size(), begin2, begin2 + second.size(),
                          pattern.data(), pattern.data() + pattern.size(), found),
                      expected != sNone);
            if (expected == sNone)
                EXPECT_EQ(found, nullptr);
            else
                EXPECT_EQ(found,
                          expected < split ? begin1 + expected : begin2 + (expected - split));
        }
    }
}

TEST(TextSearch, OrdersByCodeUnitsWhateverTheFlag)
{
    const struct {
        std::string a, b;
    } rows[] = {{"", "a"}, {"a", "ab"}, {"a10", "a9"}, {"B", "a"}, {"z", "é"}, {"a", "a\0"s}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.b);
        const std::wstring a(row.a.begin(), row.a.end());
        const std::wstring b(row.b.begin(), row.b.end());
        for (const bool flag : {false, true}) {
            EXPECT_TRUE(kyStringUtils::CompareUTF8Natural(row.a, row.b, flag));
            EXPECT_FALSE(kyStringUtils::CompareUTF8Natural(row.b, row.a, flag));
            EXPECT_FALSE(kyStringUtils::CompareUTF8Natural(row.a, row.a, flag));
        }
        EXPECT_TRUE(kyStringUtils::UTF8NaturalSortFunction(row.a, row.b));
        EXPECT_TRUE(kyStringUtils::UTF8NaturalSortFunctionCaseInsensitive(row.a, row.b));
    }
    EXPECT_TRUE(kyStringUtils::CompareUTF16Natural(L"a10", 3, L"a9", 2, false));
    EXPECT_TRUE(kyStringUtils::CompareUTF16Natural(L"B", 1, L"a", 1, true));
    EXPECT_TRUE(kyStringUtils::CompareUTF16Natural(nullptr, 0, L"a", 1, true));
    EXPECT_FALSE(kyStringUtils::CompareUTF16Natural(L"ab", 1, L"ac", 1, false));
}

TEST(TextSearch, ComparesVersions)
{
    const struct {
        std::string a, b;
        unsigned long maxComponents;
        int expected;
    } rows[] = {
        {"", "", 0, 0},
        {"", "0.0", 0, 0},
        {"1.0", "1", 0, 0},
        {"1.", "1..0", 0, 0},
        {"1.9", "1.10", 0, -1},
        {"1.010", "1.10", 0, 0},
        {"99999999999999999999", "100000000000000000000", 0, -1},
        {"1.0-rc1", "1.0", 0, -1},
        {"1.0-rc9", "1.0-rc10", 0, -1},
        {"1.0-rc", "1.0-rc1", 0, -1},
        {"1.0-alpha", "1.0-beta", 0, -1},
        {"1.2.3", "1.2.4", 2, 0},
        {"1.2.3", "1.3", 2, -1},
        {"1.2.3", "1.2.4", 3, -1},
        {"2", "1.9.9", 1, 1},
        {"1_2", "1+2", 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.a + " and " + row.b);
        EXPECT_EQ(kyStringUtils::compareSoftwareVersion(row.a, row.b, row.maxComponents),
                  row.expected);
        EXPECT_EQ(kyStringUtils::compareSoftwareVersion(row.b, row.a, row.maxComponents),
                  -row.expected);
    }
}

}  // namespace

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
    } rows[] = {{"TRUE", true}, {"t", true},  {"1", true},     {"On", true},      {"false", false},
                {"F", false},   {"0", false}, {"oFF", false},  {"", {}},          {" true", {}},
                {"01", {}},     {"yes", {}},  {"true\0"s, {}}, {"falsefalse", {}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        for (const bool before : {false, true}) {
            bool result = before;
            EXPECT_EQ(kyStringUtils::parseBool(row.text, result), row.expected.has_value());
            EXPECT_EQ(result, row.expected.value_or(before));
        }
    }
    bool result = true;
    EXPECT_FALSE(kyStringUtils::parseBool(nullptr, 0, result));
    EXPECT_TRUE(kyStringUtils::parseBool("off trail", 3, result));
    EXPECT_FALSE(result);
}

TEST(TextSearch, TellsControlCharactersFromText)
{
    for (const std::string& text : {"\x1F"s, "a\0"s, "\x7F"s})
        EXPECT_TRUE(kyStringUtils::ContainsAsciiNonPrintableChar(text));
    for (const std::string& text : {""s, " ~"s, "\x80\xFF"s})
        EXPECT_FALSE(kyStringUtils::ContainsAsciiNonPrintableChar(text));
    EXPECT_FALSE(kyStringUtils::ContainsAsciiNonPrintableChar(nullptr, 0));
    EXPECT_FALSE(kyStringUtils::ContainsAsciiNonPrintableChar("ab\n", 2));
}

TEST(TextSearch, ReplacesWithoutLookingAtWhatItInserted)
{
    const auto replaced = [](std::string text, const std::string& what, const std::string& with) {
        kyStringUtils::ReplaceAllOccurrences(text, what, with);
        return text;
    };
    EXPECT_EQ(replaced("aaa", "a", "aa"), "aaaaaa");
    EXPECT_EQ(replaced("aaaaa", "aa", "b"), "bba");
    EXPECT_EQ(replaced("abc", "", "x"), "abc");
    EXPECT_EQ(replaced("abcabc", "bc", ""), "aa");
    EXPECT_EQ(replaced("a\0b"s, "\0"s, "-"), "a-b");
    std::string same = "ab";
    kyStringUtils::ReplaceAllOccurrences(same, "b", same);
    EXPECT_EQ(same, "aab");
    std::string xml = "<a href=\"x\">'&amp;'</a>\0é"s;
    kyStringUtils::EscapeXmlString(xml);
    EXPECT_EQ(xml, "&lt;a href=&quot;x&quot;&gt;&apos;&amp;amp;&apos;&lt;/a&gt;\0é"s);
}

TEST(TextSearch, JoinsInPlaceOfTheOutput)
{
    std::string output = "old";
    kyStringUtils::Join(std::vector<std::string>{"", "b", ""}, output, "--"s);
    EXPECT_EQ(output, "--b--");
    kyStringUtils::Join(std::vector<std::string>{"a", "b"}, output, output);
    EXPECT_EQ(output, "a--b--b");
    kyStringUtils::Join(std::vector<std::string>{}, output, "-"s);
    EXPECT_EQ(output, "");
}

TEST(TextSearch, FindsInBothWaysFromAPosition)
{
    const std::string text = "aBc ABC é";
    const struct {
        std::string what;
        std::size_t from, sensitive, insensitive;
    } rows[] = {{"abc", 0, sNone, 0},     {"ABC", 0, 4, 0},       {"abc", 1, sNone, 4},
                {"abc", 5, sNone, sNone}, {"É", 0, sNone, sNone}, {"é", 0, 8, 8},
                {"", 10, 10, 10},         {"", 11, sNone, sNone}, {"x", sNone, sNone, sNone}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(kyStringUtils::FindCaseSensitive(text, row.what, row.from), row.sensitive);
        EXPECT_EQ(kyStringUtils::FindCaseInsensitive(text, row.what, row.from), row.insensitive);
    }
    EXPECT_FALSE(kyStringUtils::Contains(text, "abc", true));
    EXPECT_TRUE(kyStringUtils::Contains(text, "abc", false));
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
    for (const bool flag : {false, true}) {
        EXPECT_TRUE(kyStringUtils::CompareUTF8Natural("a10", "a9", flag));
        EXPECT_TRUE(kyStringUtils::CompareUTF8Natural("B", "a", flag));
        EXPECT_FALSE(kyStringUtils::CompareUTF8Natural("é", "z", flag));
        EXPECT_FALSE(kyStringUtils::CompareUTF8Natural("a\0"s, "a", flag));
        EXPECT_TRUE(kyStringUtils::CompareUTF16Natural(L"a10", 3, L"a9", 2, flag));
        EXPECT_TRUE(kyStringUtils::CompareUTF16Natural(L"B", 1, L"a", 1, flag));
        EXPECT_FALSE(kyStringUtils::CompareUTF16Natural(L"ab", 1, L"ac", 1, flag));
    }
    for (const auto predicate : {kyStringUtils::UTF8NaturalSortFunction,
                                 kyStringUtils::UTF8NaturalSortFunctionCaseInsensitive}) {
        EXPECT_TRUE(predicate("B", "a"));
        EXPECT_FALSE(predicate("a", "a"));
    }
}

TEST(TextSearch, ComparesVersions)
{
    const auto order = [](const char* a, const char* b, unsigned long maxComponents = 0) {
        const int result = kyStringUtils::compareSoftwareVersion(a, b, maxComponents);
        EXPECT_EQ(kyStringUtils::compareSoftwareVersion(b, a, maxComponents), -result) << a;
        return result;
    };
    EXPECT_EQ(order("", "0.0"), 0);
    EXPECT_EQ(order("1.", "1..0"), 0);
    EXPECT_EQ(order("1_2-3", "1+2.3"), 0);
    EXPECT_EQ(order("1.9", "1.10"), -1);
    EXPECT_EQ(order("1.010", "1.10"), 0);
    EXPECT_EQ(order("99999999999999999999", "100000000000000000000"), -1);
    EXPECT_EQ(order("1.0-rc1", "1.0"), -1);
    EXPECT_EQ(order("1.0-rc9", "1.0-rc10"), -1);
    EXPECT_EQ(order("1.0-rc", "1.0-rc1"), -1);
    EXPECT_EQ(order("1.0-alpha2", "1.0-beta1"), -1);
    EXPECT_EQ(order("1.2.3", "1.2.4", 2), 0);
    EXPECT_EQ(order("1.2.3", "1.2.4", 3), -1);
}

}  // namespace

#include "ky/kyStringUtils.h"

#include "support/Child.h"
#include "text/Charset.h"

#include <gtest/gtest.h>

#include <utf8.h>

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>
#include <clocale>
#include <cstdlib>

namespace {

using ky::kyStringUtils;
using std::string_literals::operator""s;

constexpr auto sLocal = kyStringUtils::CharSetLocal8Bit;
constexpr auto sUtf8 = kyStringUtils::CharSetUtf8;
constexpr auto sAscii = kyStringUtils::CharSetUsAscii;

struct Charset : ::testing::Test {
    Charset() { EXPECT_TRUE(kyStringUtils::InitializeStringUtils()); }
    ~Charset() override { kyStringUtils::TerminateStringUtils(); }
};

/// Runs `body` in a child whose environment asks for `locale`, with the string utilities ready.
void InEnvironment(const char* locale, const std::function<void()>& body)
{
    const ky::test::ChildResult child = ky::test::RunInChild([&] {
        ::setenv("LC_ALL", locale, 1);
        kyStringUtils::InitializeStringUtils();
        body();
    });
    EXPECT_EQ(child.exitCode, 0) << locale << '\n' << child.out << child.err;
}

TEST_F(Charset, ConvertsBytesInOneCallOrNotAtAll)
{
    const std::string longAscii(1000, 'x');
    const struct {
        std::string text;
        kyStringUtils::kyCharSet from, to;
        std::string expected;
    } rows[] = {
        {"", sUtf8, sAscii, ""},
        {longAscii, sUtf8, sAscii, longAscii},
        {longAscii + "é", sUtf8, sAscii, longAscii + "?"},
        {longAscii + "\x80", sUtf8, sAscii, ""},
        {"a\0b"s, sUtf8, sAscii, "a\0b"s},
        {"é\0b"s, sUtf8, sAscii, "?\0b"s},
        {"a\0b"s, sAscii, sUtf8, "a\0b"s},
        {"\xEF\xBB\xBFx", sUtf8, sAscii, "x"},
        {"20 €", sUtf8, sAscii, "20 EUR"},
        {"a\xFF"
         "b",
         sUtf8, sAscii, ""},
        {"a\xC3", sUtf8, sAscii, ""},
        {"a\xE9", sAscii, sUtf8, ""},
        {"½", sUtf8, sAscii, " 1/2 "},  // with its zero 6 bytes, twice the 3 of the input
        {"½½", sUtf8, sAscii, ""},      // 11 bytes, more than twice 5
        {"abc", sUtf8, sUtf8, ""},
        {"é", sUtf8, sUtf8, ""},
        {"abc", sAscii, sAscii, ""},
        {"abc", sLocal, sLocal, ""},
        {"abc", sUtf8, static_cast<kyStringUtils::kyCharSet>(3), ""},
        {"abc", static_cast<kyStringUtils::kyCharSet>(-1), sUtf8, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(kyStringUtils::convertCharset(row.text, row.from, row.to), row.expected)
            << row.text << ' ' << row.from << ' ' << row.to;
    }
}

TEST_F(Charset, FindsANonAsciiByteAtEveryPlaceOfEveryLength)
{
    for (std::size_t size = 1; size < 140; ++size) {
        for (std::size_t place = 0; place < size; ++place) {
            std::string text(size, 'a');
            text[place] = '\x80';
            ASSERT_EQ(kyStringUtils::convertCharset(text, sUtf8, sAscii), "") << size << place;
        }
    }
}

TEST_F(Charset, ConvertsWideText)
{
    EXPECT_EQ(kyStringUtils::convertToUnicode("aé€🙂", sUtf8), L"aé€🙂");
    EXPECT_EQ(kyStringUtils::convertToUnicode("a\0é"s, sUtf8), std::wstring(L"a\0é", 3));
    EXPECT_EQ(kyStringUtils::convertToUnicode("", sUtf8), L"");
    EXPECT_EQ(kyStringUtils::convertToUnicode("a\xFF", sUtf8), L"");
    EXPECT_EQ(kyStringUtils::convertToUnicode("é", sAscii), L"");

    EXPECT_EQ(kyStringUtils::convertTo8Bits(L"aé€🙂", sUtf8), "aé€🙂");
    EXPECT_EQ(kyStringUtils::convertTo8Bits(std::wstring(L"a\0é", 3), sUtf8), "a\0é"s);
    EXPECT_EQ(kyStringUtils::convertTo8Bits(L"½½½½", sAscii), " 1/2  1/2  1/2  1/2 ");
    EXPECT_EQ(kyStringUtils::convertTo8Bits(std::wstring(1, wchar_t{0xD800}), sUtf8), "?");
    const std::string beyond = kyStringUtils::convertTo8Bits(std::wstring(1, 0x110000), sUtf8);
    EXPECT_EQ(beyond, "\xF4\x90\x80\x80");
    EXPECT_FALSE(kyStringUtils::IsUtf8String(beyond));
}

TEST_F(Charset, ConvertsTextsLongerThanTheRoomThatItKeeps)
{
    const std::wstring wide(300000, L'é');
    const std::string narrow = kyStringUtils::convertTo8Bits(wide, sUtf8);
    EXPECT_EQ(narrow.size(), 600000u);
    EXPECT_EQ(kyStringUtils::convertToUnicode(narrow, sUtf8), wide);
    EXPECT_EQ(kyStringUtils::convertCharset(narrow, sUtf8, sAscii), std::string(300000, '?'));
    EXPECT_EQ(kyStringUtils::convertTo8Bits(L"é", sUtf8), "é");
}

TEST(CharsetOfTheEnvironment, IsReadWhenAThreadOpensItsConverters)
{
    InEnvironment("C.UTF-8", [] {
        EXPECT_EQ(ky::impl::GetProcessCodeset(), "UTF-8");
        EXPECT_EQ(kyStringUtils::convertCharset("é€", sUtf8, sLocal), "é€");
        EXPECT_EQ(kyStringUtils::convertCharset("\xEF\xBB\xBFx", sUtf8, sLocal), "\xEF\xBB\xBFx");
        EXPECT_EQ(kyStringUtils::convertToUnicode("é", sLocal), L"é");
        EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xE9", '_'), "a_");
        EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    });
    InEnvironment("C", [] {
        EXPECT_EQ(kyStringUtils::convertCharset("é€", sUtf8, sLocal), "?EUR");
        EXPECT_EQ(kyStringUtils::convertCharset("abc", sLocal, sUtf8), "abc");
        EXPECT_EQ(kyStringUtils::convertCharset("\xE9", sLocal, sUtf8), "");
        ::setenv("LC_ALL", "C.UTF-8", 1);
        std::thread([] { kyStringUtils::InitializeForThread(); }).join();
        EXPECT_EQ(ky::impl::GetProcessCodeset(), "UTF-8");
        EXPECT_EQ(kyStringUtils::convertCharset("é", sUtf8, sLocal), "?") << "opened earlier";
        // Transliteration alone follows the process locale of the moment.
        std::setlocale(LC_ALL, "C.UTF-8");
        EXPECT_EQ(kyStringUtils::convertCharset("é", sUtf8, sLocal), "e");
    });
}

TEST(CharsetOfTheEnvironment, IsThatOfTheProcessWhenOneCategoryNamesNoLocale)
{
    const ky::test::ChildResult child = ky::test::RunInChild([] {
        ::unsetenv("LC_ALL");
        ::setenv("LC_CTYPE", "C.UTF-8", 1);
        ::setenv("LC_TIME", "no_SUCH.locale", 1);
        kyStringUtils::InitializeStringUtils();
        EXPECT_EQ(ky::impl::GetProcessCodeset(), "ANSI_X3.4-1968");
        kyStringUtils::TerminateStringUtils();
        std::setlocale(LC_CTYPE, "C.UTF-8");
        kyStringUtils::InitializeStringUtils();
        EXPECT_EQ(ky::impl::GetProcessCodeset(), "UTF-8");
    });
    EXPECT_EQ(child.exitCode, 0) << child.out;
}

TEST(CharsetConverter, CopiesAsciiOnlyBetweenSetsThatAgreeOnIt)
{
    const struct {
        const char* set;
        bool fromIt, toIt;
    } rows[] = {
        {"UTF-8", true, true},        {"ISO-8859-15", true, true},   {"EUC-JP", true, true},
        {"GB18030", true, true},      {"SHIFT_JIS", false, true},    {"UTF-7", false, false},
        {"ISO-2022-JP", false, true}, {"ISO-2022-KR", false, false}, {"IBM037", false, false},
        {"UTF-16", false, false},     {"NO-SUCH-SET", false, false}};
    for (const auto& row : rows) {
        ky::impl::Converter from;
        from.open("UTF-8//TRANSLIT//IGNORE", row.set);
        EXPECT_EQ(from.copiesAscii(), row.fromIt) << row.set;
        ky::impl::Converter to;
        to.open(row.set + "//TRANSLIT//IGNORE"s, "UTF-8");
        EXPECT_EQ(to.copiesAscii(), row.toIt) << row.set;
    }
}

TEST(CharsetConverter, ForgetsTheShiftStateOfAFailedCall)
{
    ky::impl::Converter converter;
    converter.open("UTF-8//TRANSLIT//IGNORE", "ISO-2022-JP");
    char out[16];
    EXPECT_EQ(converter.convert("\x1B$B\xFF", 4, out, sizeof out), ky::impl::Converter::sFailed);
    ASSERT_EQ(converter.convert("00", 2, out, sizeof out), 2u);
    EXPECT_EQ(std::string(out, 2), "00");
}

TEST(CharsetLife, GivesEmptyTextsOutsideInitialisation)
{
    const auto expectNothing = [] {
        EXPECT_FALSE(ky::impl::IsStringUtilsInitialized());
        EXPECT_EQ(kyStringUtils::msCLocale, nullptr);
        EXPECT_EQ(kyStringUtils::msCplusLocale, nullptr);
        EXPECT_FALSE(kyStringUtils::TerminateStringUtils());
        kyStringUtils::InitializeForThread();
        EXPECT_EQ(kyStringUtils::convertCharset("abc", sUtf8, sAscii), "");
        EXPECT_EQ(kyStringUtils::convertToUnicode("abc", sUtf8), L"");
        EXPECT_EQ(kyStringUtils::convertTo8Bits(L"abc", sUtf8), "");
        EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xFF", '#'), "a#");
        EXPECT_EQ(kyStringUtils::fromInt(-5, 4), "00-5");
    };
    expectNothing();
    ASSERT_TRUE(kyStringUtils::InitializeStringUtils());
    EXPECT_FALSE(kyStringUtils::InitializeStringUtils());
    EXPECT_TRUE(ky::impl::IsStringUtilsInitialized());
    EXPECT_EQ(kyStringUtils::msCplusLocale->name(), "C");
    EXPECT_EQ(::strtod_l("1.5", nullptr, *kyStringUtils::msCLocale), 1.5);
    EXPECT_TRUE(kyStringUtils::TerminateStringUtils());
    expectNothing();
}

TEST(CharsetLife, MayBeginAgainAnyNumberOfTimes)
{
    // More often than the system has thread-specific keys; the leak checker sees the rest.
    for (int life = 0; life < 10000; ++life) {
        ASSERT_TRUE(kyStringUtils::InitializeStringUtils());
        ASSERT_EQ(kyStringUtils::convertCharset("é", sUtf8, sAscii), "?") << life;
        ASSERT_TRUE(kyStringUtils::TerminateStringUtils());
    }
}

TEST(CharsetLife, GivesNewConvertersToAThreadThatKeptOldOnes)
{
    // In a child: the old converters of the thread are lost, as they have to be.
    InEnvironment("C", [] {
        std::promise<void> converted;
        std::promise<void> restarted;
        std::thread thread([&] {
            EXPECT_EQ(kyStringUtils::convertCharset("é", sUtf8, sLocal), "?");
            converted.set_value();
            restarted.get_future().wait();
            EXPECT_EQ(kyStringUtils::convertCharset("é", sUtf8, sLocal), "é");
        });
        converted.get_future().wait();
        kyStringUtils::TerminateStringUtils();
        ::setenv("LC_ALL", "C.UTF-8", 1);
        kyStringUtils::InitializeStringUtils();
        restarted.set_value();
        thread.join();
    });
}

TEST(CharsetLife, GoesOnWithoutConvertersWhenNoKeyIsLeft)
{
    const ky::test::ChildResult child = ky::test::RunInChild([] {
        pthread_key_t key = 0;
        while (::pthread_key_create(&key, nullptr) == 0)
            continue;
        EXPECT_TRUE(kyStringUtils::InitializeStringUtils());
        EXPECT_EQ(kyStringUtils::convertCharset("abc", sUtf8, sAscii), "");
        EXPECT_FALSE(ky::impl::IsStringUtilsInitialized());
        EXPECT_TRUE(kyStringUtils::TerminateStringUtils());
        EXPECT_FALSE(kyStringUtils::TerminateStringUtils());
    });
    EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
}

std::atomic<int> sExitConversions = 0;

TEST_F(Charset, ConvertsInThreadExitRoutinesToo)
{
    // Two routines, one with a key below and one with a key above that of the converters.
    pthread_key_t keys[2] = {};
    kyStringUtils::TerminateStringUtils();
    const auto convertAtExit = [](void*) {
        sExitConversions += kyStringUtils::convertCharset("é", sUtf8, sAscii) == "?" ? 1 : 0;
    };
    ASSERT_EQ(::pthread_key_create(&keys[0], convertAtExit), 0);
    ASSERT_TRUE(kyStringUtils::InitializeStringUtils());
    ASSERT_EQ(::pthread_key_create(&keys[1], convertAtExit), 0);
    std::thread([&] {
        for (const pthread_key_t key : keys)
            ::pthread_setspecific(key, &sExitConversions);
        kyStringUtils::InitializeForThread();
    }).join();
    EXPECT_EQ(sExitConversions, 2);
    for (const pthread_key_t key : keys)
        ::pthread_key_delete(key);
}

TEST_F(Charset, OpensConvertersOfManyThreadsAtOnce)
{
    std::atomic<int> good = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&good] {
            for (int turn = 0; turn < 100; ++turn)
                good += kyStringUtils::convertCharset("½", sUtf8, sAscii) == " 1/2 " ? 1 : 0;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 800);
}

// Not under the sanitizers: their own locks do not stand forks of a process with threads.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Charset, OpensConvertersInAChildForkedWhileOthersOpenTheirs)
{
    std::atomic<bool> done = false;
    std::thread opener([&done] {
        while (!done)
            std::thread([] { kyStringUtils::InitializeForThread(); }).join();
    });
    for (int i = 0; i < 200 && !HasFailure(); ++i) {
        // From a thread without converters, so that the child has to open its own.
        std::thread([] {
            const pid_t child = ::fork();
            if (child == 0) {
                ::alarm(30);
                ::_exit(kyStringUtils::convertCharset("é", sUtf8, sAscii) == "?" ? 0 : 1);
            }
            int status = -1;
            EXPECT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
        }).join();
    }
    done = true;
    opener.join();
}
#endif

TEST_F(Charset, MakesValidUtf8OfAnything)
{
    const struct {
        std::string text;
        char replacement;
        std::string expected;
    } rows[] = {
        {"", '?', ""},
        {"é\0ß"s, '?', "é\0ß"s},
        {"\xEF\xBB\xBFx", '?', "\xEF\xBB\xBFx"},
        {"a\xE9z\xFF\xFE!", '#', "a#z##!"},
        {"a\xE9z\xFF\xFE!", '\0', "az!"},
        {"\xFF", '\0', ""},
        {"é\xC3", '\xE9', "é?"},
        {"\xED\xA0\x80", '.', "..."},
    };
    for (const auto& row : rows)
        EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8(row.text, row.replacement), row.expected);
}

TEST(Utf8Check, CountsCodePointsOrThrowsTheOneException)
{
    const struct {
        std::string text;
        int count;  // -1: invalid
    } rows[] = {
        {"", 0},
        {"aé€🙂", 4},
        {"a\0b"s, 3},
        {"\xEF\xBF\xBE\xEF\xBF\xBF", 2},  // U+FFFE, U+FFFF
        {"a\x80", -1},
        {"\xC0\x80", -1},          // overlong
        {"a\xE2\x82", -1},         // cut at the end
        {"\xED\xA0\x80", -1},      // surrogate
        {"\xF4\x90\x80\x80", -1},  // above U+10FFFF
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(kyStringUtils::IsUtf8String(row.text), row.count >= 0);
        if (row.count >= 0)
            EXPECT_EQ(kyStringUtils::CountUtf8Char(row.text), static_cast<std::size_t>(row.count));
        else
            EXPECT_THROW(kyStringUtils::CountUtf8Char(row.text), utf8::invalid_utf8);
    }
}

}  // namespace

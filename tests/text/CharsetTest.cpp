#include "ky/kyStringUtils.h"

#include "support/Child.h"
#include "text/Charset.h"

#include <gtest/gtest.h>

#include <utf8.h>

#include <atomic>
#include <string>
#include <thread>

#include <dlfcn.h>
#include <unistd.h>
#include <clocale>
#include <cstdlib>

static std::atomic<void (*)()> sInsideIconv = nullptr;

/// Stands before the C library's function and calls, once, what could interrupt it.
extern "C" std::size_t iconv(iconv_t handle, char** in, std::size_t* inLeft, char** out,
                             std::size_t* outLeft)
{
    static const auto system = reinterpret_cast<decltype(&::iconv)>(::dlsym(RTLD_NEXT, "iconv"));
    if (auto* const interruption = sInsideIconv.exchange(nullptr))
        interruption();
    return system(handle, in, inLeft, out, outLeft);
}

namespace {

using ky::kyStringUtils;
using ky::test::ExpectChildPasses;
using std::string_literals::operator""s;

constexpr auto sLocal = kyStringUtils::CharSetLocal8Bit;
constexpr auto sUtf8 = kyStringUtils::CharSetUtf8;
constexpr auto sAscii = kyStringUtils::CharSetUsAscii;

struct Charset : ::testing::Test {
    Charset() { EXPECT_TRUE(kyStringUtils::InitializeStringUtils()); }
    ~Charset() override { kyStringUtils::TerminateStringUtils(); }
};

std::string ToAscii(const std::string& text)
{
    return kyStringUtils::convertCharset(text, sUtf8, sAscii);
}

void Restart(const char* locale)
{
    ::setenv("LC_ALL", locale, 1);
    kyStringUtils::TerminateStringUtils();
    kyStringUtils::InitializeStringUtils();
}

TEST_F(Charset, ConvertsInOneCallOrNotAtAll)
{
    EXPECT_EQ(ToAscii("é\0b"s), "?\0b"s);
    EXPECT_EQ(ToAscii("½"), " 1/2 ");  // with its zero 6 bytes, twice the 3 of the input
    EXPECT_EQ(ToAscii("½½"), "");      // 11 bytes, more than twice 5
    EXPECT_EQ(kyStringUtils::convertTo8Bits(L"½½½½", sAscii), " 1/2  1/2  1/2  1/2 ");
    EXPECT_EQ(kyStringUtils::convertCharset("a", sUtf8, sUtf8), "") << "kept: no such pair";
    EXPECT_EQ(kyStringUtils::convertCharset("a", sUtf8, kyStringUtils::kyCharSet(3)), "");
    for (std::size_t size = 0; size < 140; ++size)
        EXPECT_EQ(ToAscii(std::string(size, 'a') + '\x80'), "") << size;

    // Longer than the room that a thread keeps.
    const std::wstring wide = std::wstring(L"a\0é€🙂", 5) + std::wstring(300000, L'é');
    const std::string narrow = kyStringUtils::convertTo8Bits(wide, sUtf8);
    EXPECT_TRUE(narrow.starts_with("a\0é€🙂é"s));
    EXPECT_EQ(kyStringUtils::convertToUnicode(narrow, sUtf8), wide);
    EXPECT_EQ(kyStringUtils::convertToUnicode("a\xFF", sUtf8), L"");
}

TEST(CharsetOfTheEnvironment, IsReadWhenAThreadOpensItsConverters)
{
    ExpectChildPasses([] {
        Restart("C.UTF-8");
        EXPECT_EQ(kyStringUtils::convertCharset("\xEF\xBB\xBFé€", sUtf8, sLocal), "\xEF\xBB\xBFé€");
        EXPECT_EQ(kyStringUtils::convertCharset("é\xFF", sUtf8, sLocal), "");
        EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
        Restart("C");
        ::setenv("LC_ALL", "C.UTF-8", 1);
        std::thread([] { kyStringUtils::InitializeForThread(); }).join();
        EXPECT_EQ(ky::impl::GetProcessCodeset(), "UTF-8");
        EXPECT_EQ(kyStringUtils::convertCharset("é€", sUtf8, sLocal), "?EUR") << "opened earlier";
        std::thread([] { Restart("C.UTF-8"); }).join();
        EXPECT_EQ(kyStringUtils::convertCharset("é", sUtf8, sLocal), "é")
            << "kept converters of an earlier life";
        // One category that names no locale: the codeset is that of the process.
        ::unsetenv("LC_ALL");
        ::setenv("LC_TIME", "no_SUCH.locale", 1);
        std::thread([] { kyStringUtils::InitializeForThread(); }).join();
        EXPECT_EQ(ky::impl::GetProcessCodeset(), "ANSI_X3.4-1968");
    });
}

TEST(CharsetConverter, KnowsWhatSetsMakeOfAsciiAndLeavesNoShiftOpen)
{
    const auto copies = [](const std::string& target, const char* source) {
        ky::impl::Converter converter;
        converter.open(target + "//TRANSLIT//IGNORE", source);
        converter.probeAscii();
        return converter.copiesAscii();
    };
    EXPECT_TRUE(copies("SHIFT_JIS", "UTF-8") && copies("UTF-8", "GB18030"));
    EXPECT_FALSE(copies("UTF-8", "SHIFT_JIS") || copies("UTF-8", "ISO-2022-JP"));
    EXPECT_FALSE(copies("UTF-7", "UTF-8") || copies("UTF-8", "UTF-7"));

    ky::impl::Converter converter;
    converter.open("UTF-8//TRANSLIT//IGNORE", "ISO-2022-JP");
    char out[16] = {};
    converter.convert("\x1B$B0l", 5, out, sizeof out);
    EXPECT_EQ(converter.convert("00", 2, out, sizeof out), 2u);
}

TEST(CharsetLife, GivesEmptyTextsOutsideInitialisation)
{
    EXPECT_TRUE(kyStringUtils::InitializeStringUtils());
    EXPECT_FALSE(kyStringUtils::InitializeStringUtils());
    EXPECT_TRUE(kyStringUtils::TerminateStringUtils());
    EXPECT_FALSE(kyStringUtils::TerminateStringUtils());
    EXPECT_EQ(ToAscii("abc"), "");
    EXPECT_EQ(kyStringUtils::convertToUnicode("abc", sUtf8), L"");
    EXPECT_EQ(kyStringUtils::convertTo8Bits(L"abc", sUtf8), "");
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xFF", '#'), "a#");
}

std::string sConvertedMeanwhile;

TEST_F(Charset, GivesNothingToAHandlerThatInterruptsAConversion)
{
    const auto convertInterrupted = [] {
        sConvertedMeanwhile = "stale";
        sInsideIconv = [] { sConvertedMeanwhile = ToAscii("é"); };
        EXPECT_EQ(ToAscii("é"), "?");
        EXPECT_EQ(sConvertedMeanwhile, "");
    };
    convertInterrupted();
    std::thread(convertInterrupted).join();  // while it opens its converters
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
    // From a thread without converters, so that the child has to open its own.
    for (int i = 0; i < 200 && !HasFailure(); ++i)
        std::thread([] {
            ExpectChildPasses([] {
                ::alarm(30);
                EXPECT_EQ(ToAscii("é"), "?");
            });
        }).join();
    done = true;
    opener.join();
}
#endif

TEST_F(Charset, MakesAndCountsValidUtf8)
{
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("é\0ß"s, '?'), "é\0ß"s);
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xE9z\xFF\xFE!", '#'), "a#z##!");
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xE9z\xFF\xFE!", '\0'), "az!");
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("é\xC3", '\xE9'), "é?");
    EXPECT_EQ(kyStringUtils::CountUtf8Char("aé€🙂\xEF\xBF\xBF"), 5u);
    // A stray byte, a cut form, a surrogate.
    for (const char* const text : {"a\x80", "a\xE2\x82", "\xED\xA0\x80"}) {
        EXPECT_FALSE(kyStringUtils::IsUtf8String(text)) << text;
        EXPECT_THROW(kyStringUtils::CountUtf8Char(text), utf8::invalid_utf8) << text;
    }
}

}  // namespace

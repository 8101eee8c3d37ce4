#include "ky/kyStringUtils.h"

#include "support/Child.h"
#include "text/Charset.h"

#include <gtest/gtest.h>

#include <utf8.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <iconv.h>
#include <sys/wait.h>
#include <unistd.h>
#include <clocale>
#include <cstdlib>

namespace {
std::atomic<void (*)()> sInsideIconv = nullptr;
}  // namespace

/// Stands before the C library's function and calls, once, what could interrupt it.
extern "C" std::size_t iconv(iconv_t handle, char** in, std::size_t* inLeft, char** out,
                             std::size_t* outLeft)
{
    static const auto systemFunction =
        reinterpret_cast<decltype(&::iconv)>(::dlsym(RTLD_NEXT, "iconv"));
    if (auto* const interruption = sInsideIconv.exchange(nullptr))
        interruption();
    return systemFunction(handle, in, inLeft, out, outLeft);
}

namespace {

using ky::kyStringUtils;
using ky::impl::Converter;
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
    EXPECT_EQ(ToAscii(longAscii), longAscii);
    EXPECT_EQ(ToAscii(longAscii + "é"), longAscii + "?");
    EXPECT_EQ(ToAscii("é\0b"s), "?\0b"s);
    EXPECT_EQ(ToAscii("\xEF\xBB\xBFx"), "x");
    EXPECT_EQ(ToAscii("20 €"), "20 EUR");
    EXPECT_EQ(ToAscii("a\xC3"), "");
    EXPECT_EQ(ToAscii("½"), " 1/2 ");  // with its zero 6 bytes, twice the 3 of the input
    EXPECT_EQ(ToAscii("½½"), "");      // 11 bytes, more than twice 5
    EXPECT_EQ(kyStringUtils::convertCharset("a\0b"s, sAscii, sUtf8), "a\0b"s);
    EXPECT_EQ(kyStringUtils::convertCharset("a\xE9", sAscii, sUtf8), "");
    EXPECT_EQ(kyStringUtils::convertCharset("é", sUtf8, sUtf8), "");
    for (const int unknown : {-1, 3}) {
        const auto set = static_cast<kyStringUtils::kyCharSet>(unknown);
        EXPECT_EQ(kyStringUtils::convertCharset("abc", sUtf8, set), "");
        EXPECT_EQ(kyStringUtils::convertCharset("abc", set, sUtf8), "");
    }
}

TEST_F(Charset, FindsANonAsciiByteAtEveryPlaceOfEveryLength)
{
    for (std::size_t size = 1; size < 140; ++size) {
        for (std::size_t place = 0; place < size; ++place) {
            std::string text(size, 'a');
            text[place] = '\x80';
            ASSERT_EQ(ToAscii(text), "") << size << ' ' << place;
        }
    }
}

TEST_F(Charset, ConvertsWideText)
{
    EXPECT_EQ(kyStringUtils::convertToUnicode("a\0é€🙂"s, sUtf8),
              std::wstring(L"a\0é€🙂", 5));
    EXPECT_EQ(kyStringUtils::convertToUnicode("a\xFF", sUtf8), L"");
    EXPECT_EQ(kyStringUtils::convertTo8Bits(std::wstring(L"a\0é€🙂", 5), sUtf8),
              "a\0é€🙂"s);
    const auto fromCode = [](unsigned int code) {
        return kyStringUtils::convertTo8Bits(std::wstring(1, static_cast<wchar_t>(code)), sUtf8);
    };
    EXPECT_EQ(fromCode(0xD800), "?");
    EXPECT_EQ(fromCode(0x110000), "\xF4\x90\x80\x80");
    EXPECT_EQ(fromCode(0x80000000), "?");
    EXPECT_EQ(kyStringUtils::convertTo8Bits(L"½½½½", sAscii), " 1/2  1/2  1/2  1/2 ");

    // Longer than the room that a thread keeps.
    const std::wstring wide(300000, L'é');
    const std::string narrow = kyStringUtils::convertTo8Bits(wide, sUtf8);
    EXPECT_EQ(narrow.size(), 600000u);
    EXPECT_EQ(kyStringUtils::convertToUnicode(narrow, sUtf8), wide);
    EXPECT_EQ(ToAscii(narrow), std::string(300000, '?'));
}

TEST(CharsetOfTheEnvironment, IsReadWhenAThreadOpensItsConverters)
{
    InEnvironment("C.UTF-8", [] {
        EXPECT_EQ(ky::impl::GetProcessCodeset(), "UTF-8");
        EXPECT_EQ(kyStringUtils::convertCharset("\xEF\xBB\xBFé€", sUtf8, sLocal), "\xEF\xBB\xBFé€");
        EXPECT_EQ(kyStringUtils::convertCharset("é\xFF", sUtf8, sLocal), "");
        EXPECT_EQ(kyStringUtils::convertToUnicode("é", sLocal), L"é");
        EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    });
    InEnvironment("C", [] {
        EXPECT_EQ(kyStringUtils::convertCharset("é€", sUtf8, sLocal), "?EUR");
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
    InEnvironment("", [] {
        ::setenv("LC_CTYPE", "C.UTF-8", 1);
        ::setenv("LC_TIME", "no_SUCH.locale", 1);
        for (const char* const codeset : {"ANSI_X3.4-1968", "UTF-8"}) {
            std::thread([] { kyStringUtils::InitializeForThread(); }).join();
            EXPECT_EQ(ky::impl::GetProcessCodeset(), codeset);
            std::setlocale(LC_CTYPE, "C.UTF-8");
        }
    });
}

TEST(CharsetOfTheEnvironment, KeepsAllTextThatIsValidInIt)
{
    const struct {
        const char* set;
        std::string text, expected;
    } rows[] = {{"ISO-8859-15", "a\xE9", "aé"},
                {"ISO-8859-15", "\xA4\xA4\xA4", "€€€"},  // 10 bytes from 4
                {"TIS-620", "\xA1\xA2", "กข"}};
    for (const auto& row : rows) {
        const ky::test::TemporaryFolder folder;
        ky::test::RunCommand({"localedef", "-i", "en_US", "-f", row.set, folder.path("local")});
        if (!std::filesystem::exists(folder.path("local/LC_CTYPE")))
            GTEST_SKIP() << "no localedef, or no sources for en_US in " << row.set;
        ::setenv("LOCPATH", folder.path("").c_str(), 1);
        InEnvironment("local", [&row] {
            EXPECT_EQ(ky::impl::GetProcessCodeset(), row.set);
            EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8(row.text, '#'), row.expected);
        });
        ::unsetenv("LOCPATH");
    }
}

TEST(CharsetConverter, CopiesAsciiOnlyBetweenSetsThatAgreeOnIt)
{
    const auto copies = [](const std::string& target, const std::string& source) {
        Converter converter;
        converter.open(target + "//TRANSLIT//IGNORE", source);
        converter.probeAscii();
        return converter.copiesAscii();
    };
    for (const char* const set : {"GB18030", "SHIFT_JIS", "ISO-2022-JP"})
        EXPECT_TRUE(copies(set, "UTF-8")) << set;
    EXPECT_TRUE(copies("UTF-8", "GB18030"));
    for (const char* const set : {"SHIFT_JIS", "ISO-2022-JP"})
        EXPECT_FALSE(copies("UTF-8", set)) << set;
    for (const char* const set : {"UTF-7", "ISO-2022-KR", "IBM037", "NO-SUCH-SET"})
        EXPECT_FALSE(copies(set, "UTF-8") || copies("UTF-8", set)) << set;
}

TEST(CharsetConverter, ConvertsATextWhateverTheLastOneLeft)
{
    const auto convertLast = [](const char* target, const char* source,
                                const std::vector<std::string>& texts) {
        Converter converter;
        converter.open(target + "//TRANSLIT//IGNORE"s, source);
        std::size_t size = 0;
        char out[16];
        for (const std::string& text : texts)
            size = converter.convert(text.data(), text.size(), out, sizeof out);
        return size != Converter::sFailed ? std::string(out, size) : "failed";
    };
    // A shift left open by a failure and by a success, half a letter, a byte order mark.
    EXPECT_EQ(convertLast("UTF-8", "ISO-2022-JP", {"\x1B$B\xFF", "00"}), "00");
    EXPECT_EQ(convertLast("UTF-8", "ISO-2022-JP", {"\x1B$B0l", "00"}), "00");
    EXPECT_EQ(convertLast("ISO-8859-15", "UTF-8", {"a", "a\xC3", "b"}), "b");
    EXPECT_EQ(convertLast("UTF-16", "UTF-8", {"a", "b"}), "\xFF\xFE\x62\0"s);
}

TEST(CharsetLife, GivesEmptyTextsOutsideInitialisation)
{
    const auto expectNothing = [] {
        EXPECT_FALSE(ky::impl::IsStringUtilsInitialized());
        EXPECT_EQ(kyStringUtils::msCLocale, nullptr);
        EXPECT_EQ(kyStringUtils::msCplusLocale, nullptr);
        EXPECT_FALSE(kyStringUtils::TerminateStringUtils());
        kyStringUtils::InitializeForThread();
        EXPECT_EQ(ToAscii("abc"), "");
        EXPECT_EQ(kyStringUtils::convertToUnicode("abc", sUtf8), L"");
        EXPECT_EQ(kyStringUtils::convertTo8Bits(L"abc", sUtf8), "");
        EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xFF", '#'), "a#");
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
        EXPECT_EQ(ToAscii("abc"), "");
        EXPECT_FALSE(ky::impl::IsStringUtilsInitialized());
        EXPECT_TRUE(kyStringUtils::TerminateStringUtils());
        EXPECT_FALSE(kyStringUtils::TerminateStringUtils());
    });
    EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
}

std::string sConvertedMeanwhile;

TEST_F(Charset, ConvertsInThreadExitRoutinesToo)
{
    // With a key above that of the converters, which are closed by then.
    pthread_key_t key = 0;
    ASSERT_EQ(::pthread_key_create(&key, [](void*) { sConvertedMeanwhile = ToAscii("é"); }), 0);
    ASSERT_GT(key, *kyStringUtils::msThreadContent);
    std::thread([&] {
        ::pthread_setspecific(key, &sConvertedMeanwhile);
        kyStringUtils::InitializeForThread();
    }).join();
    EXPECT_EQ(sConvertedMeanwhile, "?");
    ::pthread_key_delete(key);
}

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

TEST_F(Charset, OpensConvertersOfManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 100; ++i)
        threads.emplace_back([] { EXPECT_EQ(ToAscii("½"), " 1/2 "); });
    for (std::thread& thread : threads)
        thread.join();
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
                ::_exit(ToAscii("é") == "?" ? 0 : 1);
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
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("é\0ß"s, '?'), "é\0ß"s);
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xE9z\xFF\xFE!", '#'), "a#z##!");
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("a\xE9z\xFF\xFE!", '\0'), "az!");
    EXPECT_EQ(kyStringUtils::UnknownEncodingToUtf8("é\xC3", '\xE9'), "é?");
}

TEST(Utf8Check, CountsCodePointsOrThrowsTheOneException)
{
    EXPECT_EQ(kyStringUtils::CountUtf8Char(""), 0u);
    EXPECT_TRUE(kyStringUtils::IsUtf8String("aé€🙂\xEF\xBF\xBF"));  // and U+FFFF
    EXPECT_EQ(kyStringUtils::CountUtf8Char("aé€🙂\xEF\xBF\xBF"), 5u);
    // A stray byte, an overlong form, a cut one, a surrogate, a value above U+10FFFF.
    for (const char* const text :
         {"a\x80", "\xC0\x80", "a\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
        EXPECT_FALSE(kyStringUtils::IsUtf8String(text)) << text;
        EXPECT_THROW(kyStringUtils::CountUtf8Char(text), utf8::invalid_utf8) << text;
    }
}

}  // namespace

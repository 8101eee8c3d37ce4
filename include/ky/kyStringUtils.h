#pragma once

#include "ky/kyExport.h"

#include <cstddef>
#include <locale>
#include <string>
#include <string_view>
#include <vector>

#include <locale.h>
#include <pthread.h>

namespace ky {

/// Operations on byte strings (UTF-8 by convention), wide strings and numbers. Only conversions
/// depend on the user's locale: `CharSetLocal8Bit` is the set of the environment, and the process
/// locale rules how they transliterate. White space and letter case mean ASCII throughout.
///
/// Any member may be called from any thread, except initialisation and termination: one thread at
/// a time, and none inside a conversion. Only running out of memory throws, unless said otherwise.
class KY_API kyStringUtils {
public:
    /// Character sets of byte strings.
    enum kyCharSet : int {
        CharSetLocal8Bit = 0,  ///< what the environment chose when the thread first converted
        CharSetUtf8 = 1,
        CharSetUsAscii = 2
    };

    kyStringUtils() = delete;

    /// Makes the locales and the key of the per-thread converters, and the calling thread's
    /// converters. False when it has run already or the first allocation fails; a later one throws,
    /// and `TerminateStringUtils` undoes what was made by then. May follow a termination.
    static bool InitializeStringUtils();

    /// Opens the calling thread's converters. Every conversion does so when needed.
    static void InitializeForThread();

    /// Undoes `InitializeStringUtils` and closes the calling thread's converters; those of other
    /// living threads are never closed. False when there is nothing to undo.
    static bool TerminateStringUtils();

    /// Converts with iconv(3) in one call; zero bytes are converted like others. Empty when `from`
    /// equals `to`, when iconv does not know the sets, on an invalid input sequence, when the
    /// result (with a final zero) is longer than twice the input with its own, outside
    /// initialisation, and in a signal handler that interrupts a conversion on its own thread.
    ///
    /// What the target cannot hold is transliterated by the rules of the process locale in force
    /// at the call, becomes "?" or, like a byte order mark towards US-ASCII, is dropped: never a
    /// failure. So an empty result of a text that is not empty is a failure, unless the target
    /// lacks characters and all were dropped. Blocks, for moments, only while a thread opens its
    /// converters.
    static std::string convertCharset(const std::string& text, kyCharSet from, kyCharSet to);

    /// As `convertCharset`, to UTF-32 in wide characters; at most as many as `text` has bytes.
    static std::wstring convertToUnicode(const std::string& text, kyCharSet from);

    /// As `convertCharset`, from UTF-32; at most eight bytes for each wide character. A surrogate
    /// and a value above 0x7FFFFFFF become "?"; other values above U+10FFFF give bytes that are
    /// not valid UTF-8.
    static std::string convertTo8Bits(const std::wstring& text, kyCharSet to);

    /// Valid UTF-8 comes back unchanged. Other text is taken for the local set or, when it does not
    /// convert from that, has each invalid byte replaced by `replacement`: 0 drops the byte, and a
    /// replacement outside ASCII, which would make the result invalid, counts as "?".
    static std::string UnknownEncodingToUtf8(const std::string& text, char replacement);

    /// Surrogates, overlong forms and values above U+10FFFF are invalid, the empty text is valid.
    static bool IsUtf8String(const std::string& text);

    /// Code points in `text`. Throws `utf8::invalid_utf8` (of utfcpp) when it is not valid UTF-8.
    static std::size_t CountUtf8Char(const std::string& text);

    /// Decimal text, filled with "0" on the left up to `width` characters. The fill goes before
    /// the sign: -5 in 4 characters is "00-5". No fill for a width of 1 and less.
    static std::string fromInt(int value, int width);
    static std::string fromUInt64(unsigned long value, int width);

    /// Short text with a unit prefix: 1234567 is "1.23M" with 3 digits and 2 decimals.
    ///
    /// Shows `maxDigits` digits with at most `maxDecimals` after the point, but always the whole
    /// integer part. Halves round down, trailing zeros after the point are dropped, and there is
    /// no second scaling: 999.97 in 3 digits is "1000". `bigPrefixes` allows k to Y for
    /// magnitudes from 1 up, `smallPrefixes` m to y below 1, where less than the smallest prefix
    /// shows as 0; `binary` takes steps of 1024 instead of 1000, with the same letters.
    /// A negative value keeps its sign even where it rounds to 0. "nan", "inf" and "-inf" stand
    /// for themselves. For T = double, long and unsigned long.
    template <typename T>
    static std::string humanizeNumberGeneric(T value, int maxDigits, int maxDecimals, bool binary,
                                             bool bigPrefixes, bool smallPrefixes);

    /// A duration in ms, s, m, h and d, from the highest unit that is not 0 to the lowest:
    /// 3605000 is "1h 0m 5s". Mode 1 leaves out what is below minutes beside hours or days, and
    /// below seconds beside minutes; mode 2 knows whole minutes only; any other mode shows all.
    /// "0ms" when nothing is left. `appendTotal` adds " (3605000ms)" to a duration of a second and
    /// more that is not shown as "0ms". A negative duration has negative units and an unsigned
    /// 64-bit total. For T = long.
    template <typename T>
    static std::string humanizeDuration(const T& milliseconds, int mode, bool appendTotal);

    /// The value with at most `maxDecimals` decimals, without exponent. Rounds the shortest decimal
    /// text that reads back equal, halves away from zero: 2.675 with two decimals is "2.68". Above
    /// 2^53 the exact integer is written: 1e23 is "99999999999999991611392".
    /// `separator` stands for the decimal point, 0 meaning "."; `keepTrailingZeros` writes exactly
    /// `maxDecimals` decimals; the integer part gets zeros up to `minIntegerDigits`. Never "-0".
    /// "nan", "inf" and "-inf" stand for themselves.
    static std::string roundNumber(double value, unsigned char maxDecimals, char separator,
                                   bool keepTrailingZeros, unsigned char minIntegerDigits);

    /// The fraction in lowest terms that is nearest to `value` with a denominator from 1 to
    /// `maxDenominator`; but 0.1 is 1/10, which divides to the same double, and not the longer
    /// fraction that the double stands for. The sign is in the numerator. False, with 0 and 1, for
    /// NaN, for magnitudes of 2^63 and more and for a bound below 1.
    static bool computeFractionnalRepresentation(double value, long& numerator, long& denominator,
                                                 long maxDenominator);

    /// Recognises false, f, 0, off, true, t, 1 and on in any letter case, without blanks around.
    /// Otherwise false, and `result` keeps its value.
    static bool parseBool(std::string_view text, bool& result);
    static bool parseBool(const char* text, std::size_t length, bool& result);

    /// Replaces & < > " and ' by their entities; an entity that is there already is escaped again.
    static void EscapeXmlString(std::string& text);

    /// Whether a byte is below 0x20 (tab and line ends too) or is 0x7F.
    static bool ContainsAsciiNonPrintableChar(const char* text, std::size_t length);
    static bool ContainsAsciiNonPrintableChar(const std::string& text);

    /// Replaces from left to right and does not look at what it inserted. An empty `what` changes
    /// nothing. The arguments may be the same object.
    static void ReplaceAllOccurrences(std::string& text, const std::string& what,
                                      const std::string& with);

    /// Replaces `output` by the parts with `separator` between them.
    /// For Container = std::vector<std::string>.
    template <typename Container>
    static void Join(const Container& parts, std::string& output, const std::string& separator);

    /// True for an empty `start`. A null pointer counts as the empty text.
    static bool StartsWith(const std::string& text, const std::string& start);
    static bool StartsWith(std::string_view text, std::string_view start);
    static bool StartsWith(const char* text, const char* start);

    /// True for an empty `what`.
    static bool Contains(const std::string& text, const std::string& what, bool caseSensitive);

    /// The first position not before `from`, in bytes, or `std::string::npos`. An empty `what` is
    /// found at `from` when that is not behind the end.
    static std::size_t FindCaseSensitive(const std::string& text, const std::string& what,
                                         std::size_t from = 0);
    static std::size_t FindCaseInsensitive(const std::string& text, const std::string& what,
                                           std::size_t from = 0);

    /// Finds a pattern in the text made of the first buffer followed by the second, either of which
    /// may be empty or null. `found` points at the first byte of the first match, in the buffer
    /// that holds it; null, and the result false, when there is none or the pattern is empty.
    static bool FindFirstAstrideBuffers(const char* begin1, const char* end1, const char* begin2,
                                        const char* end2, const char* patternBegin,
                                        const char* patternEnd, const char*& found);

    /// Whether `a` orders before `b`: plain lexicographic order of wide characters, or of unsigned
    /// bytes. The flag has no effect and digits are not read as numbers, on purpose: files sorted
    /// once stay sorted.
    static bool CompareUTF16Natural(const wchar_t* a, std::size_t aLength, const wchar_t* b,
                                    std::size_t bLength, bool caseInsensitive);
    static bool CompareUTF8Natural(const std::string& a, const std::string& b,
                                   bool caseInsensitive);

    /// `CompareUTF8Natural` as sort predicates.
    static bool UTF8NaturalSortFunction(const std::string& a, const std::string& b);
    static bool UTF8NaturalSortFunctionCaseInsensitive(const std::string& a, const std::string& b);

    /// -1, 0 or 1 as `a` is older than, the same as or newer than `b`. Compares the components
    /// between ".", "-", "_" and "+", at most `maxComponents` of them, 0 meaning all. A missing or
    /// empty component is 0. Numbers of any length compare by value and are newer than other
    /// components ("1.0-rc1" is older than "1.0"), which compare by bytes with the numbers inside
    /// them by value.
    static int compareSoftwareVersion(const std::string& a, const std::string& b,
                                      unsigned long maxComponents);

    /// The "C" locale for strtoll_l(3) and the like, the same for streams, and the key of the
    /// per-thread converters. All null outside initialisation; borrowed, never to be changed.
    static locale_t* msCLocale;
    static std::locale* msCplusLocale;
    static pthread_key_t* msThreadContent;
};

extern template std::string kyStringUtils::humanizeNumberGeneric<double>(double, int, int, bool,
                                                                         bool, bool);
extern template std::string kyStringUtils::humanizeNumberGeneric<long>(long, int, int, bool, bool,
                                                                       bool);
extern template std::string kyStringUtils::humanizeNumberGeneric<unsigned long>(unsigned long, int,
                                                                                int, bool, bool,
                                                                                bool);
extern template std::string kyStringUtils::humanizeDuration<long>(const long&, int, bool);
extern template void kyStringUtils::Join<std::vector<std::string>>(const std::vector<std::string>&,
                                                                   std::string&,
                                                                   const std::string&);

}  // namespace ky

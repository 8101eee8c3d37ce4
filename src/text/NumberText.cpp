#include "ky/kyStringUtils.h"

#include "text/Ascii.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string>
#include <string_view>

#include <cmath>

// std::to_chars writes what a stream with `msCplusLocale` does, at any time of the library's life.

namespace ky {
namespace {

struct Scale {
    const char* prefix;
    double decimalFactor;
    double binaryFactor;
};

// kept: one set of letters for both kinds, and a lower-case k for 1024 too.
constexpr std::array<Scale, 8> sBigScales = {{{"Y", 1e24, 0x1p80},
                                              {"Z", 1e21, 0x1p70},
                                              {"E", 1e18, 0x1p60},
                                              {"P", 1e15, 0x1p50},
                                              {"T", 1e12, 0x1p40},
                                              {"G", 1e9, 0x1p30},
                                              {"M", 1e6, 0x1p20},
                                              {"k", 1e3, 0x1p10}}};
constexpr std::array<Scale, 8> sSmallScales = {{{"m", 1e-3, 0x1p-10},
                                                {"\xC2\xB5", 1e-6, 0x1p-20},
                                                {"n", 1e-9, 0x1p-30},
                                                {"p", 1e-12, 0x1p-40},
                                                {"f", 1e-15, 0x1p-50},
                                                {"a", 1e-18, 0x1p-60},
                                                {"z", 1e-21, 0x1p-70},
                                                {"y", 1e-24, 0x1p-80}}};

constexpr int sMaxIntegerDigits = std::numeric_limits<double>::max_exponent10 + 1;
// The smallest double is 2^-1074, which has that many decimals.
constexpr int sMaxDecimals = 1074;

template <typename Integer>
std::string IntegerText(Integer value)
{
    std::array<char, std::numeric_limits<Integer>::digits10 + 3> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
    return {text.data(), end};
}

template <typename Integer>
std::string PaddedText(Integer value, int width)
{
    std::string text = IntegerText(value);
    // kept: the fill goes before the sign, as a stream with its default adjustment puts it.
    if (width > 0 && text.size() < static_cast<std::size_t>(width))
        text.insert(0, static_cast<std::size_t>(width) - text.size(), '0');
    return text;
}

/// A finite value without exponent, with exactly `decimals` decimals.
std::string FixedText(double value, int decimals)
{
    std::array<char, sMaxIntegerDigits + sMaxDecimals + 3> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value,
                                   std::chars_format::fixed, decimals)
                         .ptr;
    return {text.data(), end};
}

/// The shortest text without exponent that reads back equal.
std::string ShortestText(double value)
{
    std::array<char, sMaxIntegerDigits + sMaxDecimals + 3> text{};
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed).ptr;
    return {text.data(), end};
}

std::string NotFiniteText(double value)
{
    if (std::isnan(value))
        return "nan";
    return value < 0 ? "-inf" : "inf";
}

/// Divides `magnitude` by the factor that suits it and returns the prefix of that.
const char* ApplyScale(double& magnitude, bool binary, bool bigPrefixes, bool smallPrefixes)
{
    const bool isSmall = magnitude < 1.0;
    if (!(isSmall ? smallPrefixes : bigPrefixes))
        return "";
    for (const Scale& scale : isSmall ? sSmallScales : sBigScales) {
        const double factor = binary ? scale.binaryFactor : scale.decimalFactor;
        if (magnitude >= factor) {
            magnitude /= factor;
            return scale.prefix;
        }
    }
    if (isSmall)
        magnitude = 0.0;
    return "";
}

// kept: halves go down, so 2.5 is shown as 2.
double RoundHalfDown(double value)
{
    return std::fabs(std::ceil(value - 0.5));
}

std::string ScaledText(double scaled, int maxDigits, int maxDecimals)
{
    const int integerDigits =
        scaled <= 1.0 ? 1 : static_cast<int>(std::floor(std::log10(scaled))) + 1;
    // In 64 bits: the caller's figure may be the smallest integer.
    const long decimals = std::min(long{maxDecimals}, long{maxDigits} - integerDigits);
    if (decimals <= 0)
        return FixedText(RoundHalfDown(scaled), 0);

    const double power = std::pow(10.0, static_cast<double>(decimals));
    const double rounded = RoundHalfDown(scaled * power) / power;
    // Where the power overflows, rounding would change nothing.
    std::string text = FixedText(std::isfinite(rounded) ? rounded : scaled,
                                 static_cast<int>(std::min(decimals, long{sMaxDecimals})));
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.')
        text.pop_back();
    return text;
}

std::string HumanizeDouble(double value, int maxDigits, int maxDecimals, bool binary,
                           bool bigPrefixes, bool smallPrefixes)
{
    if (!std::isfinite(value))
        return NotFiniteText(value);
    double magnitude = std::fabs(value);
    const char* const prefix = ApplyScale(magnitude, binary, bigPrefixes, smallPrefixes);
    std::string text = ScaledText(magnitude, maxDigits, maxDecimals) + prefix;
    // kept: nothing is scaled again after rounding, and what rounds to 0 keeps its sign.
    if (value < 0)
        text.insert(0, 1, '-');
    return text;
}

/// Adds one to a text of digits, whose carry may make it longer.
void IncrementDigits(std::string& digits)
{
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
        if (*digit != '9') {
            ++*digit;
            return;
        }
        *digit = '0';
    }
    digits.insert(0, 1, '1');
}

// For hosts that take the sources in and compile with -Wpedantic.
__extension__ using Unsigned128 = unsigned __int128;

struct Fraction {
    long numerator;
    long denominator;

    long double distanceTo(double value) const
    {
        return std::fabs(static_cast<long double>(numerator) /
                             static_cast<long double>(denominator) -
                         static_cast<long double>(value));
    }
    bool dividesTo(double value) const
    {
        return static_cast<double>(numerator) / static_cast<double>(denominator) == value;
    }
};

/// Continued fraction of a magnitude below 2^63, computed without rounding.
Fraction NearestFraction(double magnitude, long maxDenominator)
{
    int exponent = 0;
    const double mantissa = std::frexp(magnitude, &exponent);
    constexpr int mantissaBits = std::numeric_limits<double>::digits;
    exponent -= mantissaBits;
    // Below 2^-74 no denominator of 63 bits comes nearer than 0 does.
    if (exponent < -126)
        return {0, 1};
    auto dividend = static_cast<Unsigned128>(std::ldexp(mantissa, mantissaBits));
    Unsigned128 divisor = 1;
    if (exponent >= 0)
        dividend <<= exponent;
    else
        divisor <<= -exponent;

    Fraction previous = {0, 1};
    Fraction current = {1, 0};
    while (divisor != 0) {
        const Unsigned128 quotient = dividend / divisor;
        // How often the current fraction fits into the next one.
        long room = std::numeric_limits<long>::max();
        if (current.denominator > 0)
            room = (maxDenominator - previous.denominator) / current.denominator;
        if (current.numerator > 0)
            room = std::min(
                room, (std::numeric_limits<long>::max() - previous.numerator) / current.numerator);
        const bool fits = quotient <= static_cast<Unsigned128>(room);
        const long factor = fits ? static_cast<long>(quotient) : room;
        const Fraction next = {factor * current.numerator + previous.numerator,
                               factor * current.denominator + previous.denominator};
        // Even cut short, the next one may be nearer than the last that is whole.
        if (!fits)
            return next.distanceTo(magnitude) < current.distanceTo(magnitude) ? next : current;
        previous = current;
        current = next;
        if (current.dividesTo(magnitude))
            break;
        dividend -= quotient * divisor;
        std::swap(dividend, divisor);
    }
    return current;
}

}  // namespace

std::string kyStringUtils::fromInt(int value, int width)
{
    return PaddedText(value, width);
}

std::string kyStringUtils::fromUInt64(unsigned long value, int width)
{
    return PaddedText(value, width);
}

template <typename T>
std::string kyStringUtils::humanizeNumberGeneric(T value, int maxDigits, int maxDecimals,
                                                 bool binary, bool bigPrefixes, bool smallPrefixes)
{
    return HumanizeDouble(static_cast<double>(value), maxDigits, maxDecimals, binary, bigPrefixes,
                          smallPrefixes);
}

template <typename T>
std::string kyStringUtils::humanizeDuration(const T& milliseconds, int mode, bool appendTotal)
{
    constexpr const char* suffixes[] = {"ms", "s", "m", "h", "d"};
    const T units[] = {milliseconds % 1000, milliseconds / 1000 % 60, milliseconds / 60000 % 60,
                       milliseconds / 3600000 % 24, milliseconds / 86400000};
    int count = 5;
    while (count > 0 && units[count - 1] == 0)
        --count;

    int lowest = 0;
    if (mode == 1)
        lowest = count >= 4 ? 2 : count == 3 ? 1 : 0;
    else if (mode == 2)
        lowest = count >= 2 ? 2 : count;
    // kept: in mode 2 everything below a minute is "0ms", and no total follows.
    if (count <= lowest)
        return "0ms";
    while (units[lowest] == 0)
        ++lowest;

    std::string text;
    for (int unit = count - 1; unit >= lowest; --unit) {
        text.append(text.empty() ? "" : " ").append(IntegerText(units[unit]));
        text.append(suffixes[unit]);
    }
    // kept: the total of a negative duration is its unsigned value.
    if (appendTotal && count > 1)
        text.append(" (" + fromUInt64(static_cast<unsigned long>(milliseconds), 1) + "ms)");
    return text;
}

std::string kyStringUtils::roundNumber(double value, unsigned char maxDecimals, char separator,
                                       bool keepTrailingZeros, unsigned char minIntegerDigits)
{
    if (!std::isfinite(value))
        return NotFiniteText(value);
    // Integer part and decimals as one text of digits, the decimals exactly as many as wanted.
    std::string digits = ShortestText(std::fabs(value));
    const std::size_t point = std::min(digits.find('.'), digits.size());
    digits.erase(point, 1);
    const std::size_t kept = point + maxDecimals;
    const bool roundsUp = digits.size() > kept && digits[kept] >= '5';
    digits.resize(kept, '0');
    if (roundsUp)
        IncrementDigits(digits);

    std::string integer = digits.substr(0, digits.size() - maxDecimals);
    std::string decimals = digits.substr(integer.size());
    if (!keepTrailingZeros)
        decimals.erase(decimals.find_last_not_of('0') + 1);
    if (integer.size() < minIntegerDigits)
        integer.insert(0, minIntegerDigits - integer.size(), '0');
    if (!decimals.empty())
        integer.append(1, separator == '\0' ? '.' : separator).append(decimals);
    const bool isZero = digits.find_first_not_of('0') == std::string::npos;
    return value < 0 && !isZero ? "-" + integer : integer;
}

bool kyStringUtils::computeFractionnalRepresentation(double value, long& numerator,
                                                     long& denominator, long maxDenominator)
{
    numerator = 0;
    denominator = 1;
    const double magnitude = std::fabs(value);
    // Written so that NaN fails too.
    if (!(magnitude < 0x1p63) || maxDenominator < 1)
        return false;
    const Fraction fraction = NearestFraction(magnitude, maxDenominator);
    numerator = value < 0 ? -fraction.numerator : fraction.numerator;
    denominator = fraction.denominator;
    return true;
}

template std::string kyStringUtils::humanizeNumberGeneric<double>(double, int, int, bool, bool,
                                                                  bool);
template std::string kyStringUtils::humanizeNumberGeneric<long>(long, int, int, bool, bool, bool);
template std::string kyStringUtils::humanizeNumberGeneric<unsigned long>(unsigned long, int, int,
                                                                         bool, bool, bool);
template std::string kyStringUtils::humanizeDuration<long>(const long&, int, bool);

}  // namespace ky

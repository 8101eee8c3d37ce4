#include "text/ScalarText.h"

#include "ky/kyStringUtils.h"

#include "text/Ascii.h"

#include <algorithm>
#include <charconv>

#include <cmath>
#include <cstdlib>

namespace ky {
namespace {

using impl::IsAsciiDigit;

bool EqualsLowered(std::string_view text, std::string_view lower)
{
    return std::equal(text.begin(), text.end(), lower.begin(), lower.end(),
                      [](char c, char expected) { return impl::ToAsciiLower(c) == expected; });
}

/// Whether strtoll(3) or strtod(3) can convert the start of the text: the rest of the check is
/// theirs. Most texts are not numbers, and a call costs more than all else here.
bool CanBeginNumber(char c)
{
    return IsAsciiDigit(c) || c == '-' || c == '+' || c == '.' || c == 'i' || c == 'I' ||
           c == 'n' || c == 'N';
}

/// Whether the text is a plain decimal number, which from_chars reads as strtoll(3) and strtod(3)
/// do: no sign but "-", no prefix, no leading zero. Others are left to those.
bool IsPlainDecimal(std::string_view text)
{
    if (text.front() == '-')
        text.remove_prefix(1);
    return !text.empty() && IsAsciiDigit(text[0]) &&
           (text[0] != '0' || text.size() == 1 || text[1] == '.');
}

/// Whether all of the text is such a number. `isInRange` tells whether `number` is it.
template <typename Number>
bool ReadPlain(std::string_view text, Number& number, bool& isInRange)
{
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    isInRange = error == std::errc();
    return stop == end;
}

kyVariant ParseNumber(std::string_view text, locale_t cLocale)
{
    const char* const end = text.data() + text.size();
    if (IsPlainDecimal(text)) {
        bool isInRange = false;
        std::int64_t number = 0;
        double real = 0;
        if (ReadPlain(text, number, isInRange)) {
            if (isInRange)
                return number;
        } else if (ReadPlain(text, real, isInRange) && isInRange) {
            return real;
        }
    }
    char* stop = nullptr;
    constexpr int anyBase = 0;
    const long long integer = ::strtoll_l(text.data(), &stop, anyBase, cLocale);
    // By position: a zero byte in the text ends the number, not the text.
    if (stop == end)
        return integer;
    const double real = ::strtod_l(text.data(), &stop, cLocale);
    if (stop == end)
        return real;
    return text;
}

}  // namespace

locale_t impl::CLocale()
{
    // The C library has one object for it, which needs no freeing.
    const locale_t* const kept = kyStringUtils::msCLocale;
    return kept != nullptr ? *kept : ::newlocale(LC_ALL_MASK, "C", nullptr);
}

kyVariant impl::ParseScalar(std::string_view text, locale_t cLocale)
{
    if (EqualsLowered(text, "true"))
        return true;
    if (EqualsLowered(text, "false"))
        return false;
    if (text.empty() || !CanBeginNumber(text.front()))
        return text;
    return ParseNumber(text, cLocale);
}

void impl::AppendInteger(std::string& out, std::int64_t value)
{
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

void impl::AppendReal(std::string& out, double value)
{
    // The sign of a NaN says nothing.
    if (std::isnan(value)) {
        out += "nan";
        return;
    }
    char digits[32];
    const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    const std::string_view text(digits, static_cast<std::size_t>(end - digits));
    out += text;
    if (std::all_of(text.begin(), text.end(), [](char c) { return c == '-' || IsAsciiDigit(c); }))
        out += ".0";
}

}  // namespace ky

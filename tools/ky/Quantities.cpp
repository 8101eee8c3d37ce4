#include "Quantities.h"

#include "text/Ascii.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <string_view>

namespace ky::tool {
namespace {

constexpr double sSecondMs = 1000;

// What is no number, no unit or no quantity is NaN.

double UnitMs(std::string_view unit)
{
    constexpr struct {
        std::string_view name;
        double ms;
    } units[] = {{"ms", 1},
                 {"s", sSecondMs},
                 {"m", 60 * sSecondMs},
                 {"h", 3600 * sSecondMs},
                 {"d", 86400 * sSecondMs}};
    for (const auto& known : units) {
        if (known.name == unit)
            return known.ms;
    }
    return NAN;
}

double UnitBytes(std::string unit)
{
    std::transform(unit.begin(), unit.end(), unit.begin(), &impl::ToAsciiLower);
    if (unit.empty() || unit == "b")
        return 1;
    constexpr std::string_view prefixes = "kmgtp";
    const std::size_t power = prefixes.find(unit[0]) + 1;
    const std::string rest = unit.substr(1);
    const bool isKnown = power != 0 && (rest.empty() || rest == "b" || rest == "i" || rest == "ib");
    return isKnown ? std::ldexp(1, static_cast<int>(10 * power)) : NAN;
}

std::string_view TakeWhile(std::string_view& text, bool (*belongs)(char))
{
    std::size_t size = 0;
    while (size < text.size() && belongs(text[size]))
        ++size;
    const std::string_view taken = text.substr(0, size);
    text.remove_prefix(size);
    return taken;
}

double TakeNumber(std::string_view& text)
{
    const std::string_view digits =
        TakeWhile(text, [](char c) { return impl::IsAsciiDigit(c) || c == '.'; });
    const char* const end = digits.data() + digits.size();
    double number = 0;
    const auto [read, error] = std::from_chars(digits.data(), end, number);
    return error == std::errc() && read == end ? number : NAN;
}

bool IsBlank(char c)
{
    return c == ' ';
}

double Milliseconds(std::string_view text)
{
    double number = TakeNumber(text);
    if (text.empty())
        return number * sSecondMs;
    double total = 0;
    while (true) {
        total += number * UnitMs(TakeWhile(text, [](char c) { return c >= 'a' && c <= 'z'; }));
        TakeWhile(text, &IsBlank);
        if (text.empty() || std::isnan(total))
            return total;
        number = TakeNumber(text);
    }
}

double Bytes(std::string_view text)
{
    const double number = TakeNumber(text);
    TakeWhile(text, &IsBlank);
    return number * UnitBytes(std::string(text));
}

/// Replaces a text by its quantity, rounded up, from `lowest` to `highest`.
CLI::Validator AsQuantity(double (*quantity)(std::string_view), double lowest, double highest,
                          const std::string& otherwise)
{
    return {[=](std::string& text) -> std::string {
                const double value = std::ceil(quantity(text));
                if (!(value >= lowest && value <= highest))
                    return "'" + text + "' is no " + otherwise;
                text = std::to_string(static_cast<long>(value));
                return {};
            },
            ""};
}

}  // namespace

CLI::Validator AsMilliseconds()
{
    constexpr double limitMs = 1e15;  // 30,000 years, whole in a double
    return AsQuantity(&Milliseconds, 1, limitMs, "duration such as 500ms, 90s or 1h 30m");
}

CLI::Validator AsMemorySize()
{
    constexpr double pageBytes = 4096;
    constexpr double addressableBytes = 1L << 52;
    return AsQuantity(&Bytes, pageBytes, addressableBytes,
                      "size such as 500K or 1.5G, from 4096 bytes to 4P");
}

}  // namespace ky::tool

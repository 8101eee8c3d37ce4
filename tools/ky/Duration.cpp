#include "Duration.h"

#include <charconv>
#include <cmath>
#include <string>
#include <string_view>

namespace ky::tool {
namespace {

constexpr double sSecondMs = 1000;

/// 0 for what is no unit.
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
    return 0;
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

/// NaN for what is no duration.
double Milliseconds(std::string_view text)
{
    const auto isBlank = [](char c) { return c == ' '; };
    double total = 0;
    const std::string_view whole = text;
    while (!text.empty()) {
        const std::string_view digits =
            TakeWhile(text, [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
        double number = 0;
        const auto [end, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (error != std::errc() || end != digits.data() + digits.size())
            return NAN;
        if (digits == whole)
            return number * sSecondMs;
        const double unitMs = UnitMs(TakeWhile(text, [](char c) { return c >= 'a' && c <= 'z'; }));
        if (unitMs == 0)
            return NAN;
        total += number * unitMs;
        TakeWhile(text, isBlank);
    }
    return total;
}

}  // namespace

CLI::Validator AsMilliseconds()
{
    return {[](std::string& text) -> std::string {
                constexpr double limitMs = 1e15;  // 30,000 years, whole in a double
                const double ms = std::ceil(Milliseconds(text));
                if (!(ms >= 1 && ms <= limitMs))
                    return "'" + text + "' is no duration such as 500ms, 90s or 1h 30m";
                text = std::to_string(static_cast<long>(ms));
                return {};
            },
            ""};
}

}  // namespace ky::tool

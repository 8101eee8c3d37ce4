#include "ky/kyStringUtils.h"

#include "text/Ascii.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace ky {
namespace {

bool IsOneOf(std::string_view text, std::string_view a, std::string_view b, std::string_view c,
             std::string_view d)
{
    return text == a || text == b || text == c || text == d;
}

bool ParseBoolWord(std::string_view text, bool& result)
{
    const bool isTrue = IsOneOf(text, "true", "t", "1", "on");
    if (!isTrue && !IsOneOf(text, "false", "f", "0", "off"))
        return false;
    result = isTrue;
    return true;
}

std::string_view XmlEntity(char c)
{
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&apos;";
        default:
            return {};
    }
}

/// Null as the empty text.
std::string_view View(const char* text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

/// A match that starts in `first` and ends in `second`.
const char* FindAstride(std::string_view first, std::string_view second, std::string_view pattern)
{
    std::size_t headSize = std::min(first.size(), pattern.size() - 1);
    for (; headSize > 0; --headSize) {
        const std::string_view tail = pattern.substr(headSize);
        if (tail.size() <= second.size() && first.ends_with(pattern.substr(0, headSize)) &&
            second.starts_with(tail))
            return first.data() + (first.size() - headSize);
    }
    return nullptr;
}

std::string_view TakeDigits(std::string_view& text)
{
    const auto* const end = std::find_if_not(text.begin(), text.end(), impl::IsAsciiDigit);
    const std::string_view digits = text.substr(0, static_cast<std::size_t>(end - text.begin()));
    text.remove_prefix(digits.size());
    return digits;
}

int Sign(int comparison)
{
    return (comparison > 0) - (comparison < 0);
}

/// Numbers as text, so that none is too large. The empty text is 0.
int CompareDigits(std::string_view a, std::string_view b)
{
    a.remove_prefix(std::min(a.find_first_not_of('0'), a.size()));
    b.remove_prefix(std::min(b.find_first_not_of('0'), b.size()));
    if (a.size() != b.size())
        return a.size() < b.size() ? -1 : 1;
    return Sign(a.compare(b));
}

/// By bytes, numbers by value: rc9 before rc10.
int CompareWords(std::string_view a, std::string_view b)
{
    while (!a.empty() && !b.empty()) {
        int order = 0;
        if (impl::IsAsciiDigit(a.front()) && impl::IsAsciiDigit(b.front())) {
            order = CompareDigits(TakeDigits(a), TakeDigits(b));
        } else {
            order = Sign(a.substr(0, 1).compare(b.substr(0, 1)));
            a.remove_prefix(1);
            b.remove_prefix(1);
        }
        if (order != 0)
            return order;
    }
    return static_cast<int>(b.empty()) - static_cast<int>(a.empty());
}

int CompareVersionComponents(std::string_view a, std::string_view b)
{
    const bool isNumberA = std::all_of(a.begin(), a.end(), impl::IsAsciiDigit);
    const bool isNumberB = std::all_of(b.begin(), b.end(), impl::IsAsciiDigit);
    if (isNumberA && isNumberB)
        return CompareDigits(a, b);
    if (isNumberA != isNumberB)
        return isNumberA ? 1 : -1;
    return CompareWords(a, b);
}

std::string_view TakeVersionComponent(std::string_view& version)
{
    const std::size_t size = std::min(version.find_first_of(".-_+"), version.size());
    const std::string_view component = version.substr(0, size);
    version.remove_prefix(std::min(size + 1, version.size()));
    return component;
}

}  // namespace

bool kyStringUtils::parseBool(std::string_view text, bool& result)
{
    constexpr std::size_t longestWord = 5;
    if (text.empty() || text.size() > longestWord)
        return false;
    if (ParseBoolWord(text, result))
        return true;
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), impl::ToAsciiLower);
    return ParseBoolWord(lower, result);
}

bool kyStringUtils::parseBool(const char* text, std::size_t length, bool& result)
{
    return text != nullptr && parseBool(std::string_view(text, length), result);
}

void kyStringUtils::EscapeXmlString(std::string& text)
{
    if (text.find_first_of("&<>\"'") == std::string::npos)
        return;
    std::string escaped;
    escaped.reserve(text.size() + text.size() / 4);
    for (const char c : text) {
        const std::string_view entity = XmlEntity(c);
        // kept: an entity that is there already is not recognised.
        if (entity.empty())
            escaped += c;
        else
            escaped += entity;
    }
    text.swap(escaped);
}

bool kyStringUtils::ContainsAsciiNonPrintableChar(const char* text, std::size_t length)
{
    const std::string_view view(text, length);
    return std::any_of(view.begin(), view.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

bool kyStringUtils::ContainsAsciiNonPrintableChar(const std::string& text)
{
    return ContainsAsciiNonPrintableChar(text.data(), text.size());
}

void kyStringUtils::ReplaceAllOccurrences(std::string& text, const std::string& what,
                                          const std::string& with)
{
    std::size_t match = what.empty() ? std::string::npos : text.find(what);
    if (match == std::string::npos)
        return;
    // Into a new text: one pass however many matches there are, and `text` may be an argument
    // twice.
    std::string replaced;
    std::size_t position = 0;
    for (; match != std::string::npos; match = text.find(what, position)) {
        replaced.append(text, position, match - position).append(with);
        position = match + what.size();
    }
    replaced.append(text, position);
    text.swap(replaced);
}

template <typename Container>
void kyStringUtils::Join(const Container& parts, std::string& output, const std::string& separator)
{
    // Into a new text: `output` may be the separator or one of the parts.
    std::string joined;
    bool isFirst = true;
    for (const auto& part : parts) {
        if (!isFirst)
            joined += separator;
        isFirst = false;
        joined += part;
    }
    output.swap(joined);
}

bool kyStringUtils::StartsWith(const std::string& text, const std::string& start)
{
    return text.starts_with(start);
}

bool kyStringUtils::StartsWith(std::string_view text, std::string_view start)
{
    return text.starts_with(start);
}

bool kyStringUtils::StartsWith(const char* text, const char* start)
{
    return View(text).starts_with(View(start));
}

bool kyStringUtils::Contains(const std::string& text, const std::string& what, bool caseSensitive)
{
    const std::size_t position =
        caseSensitive ? FindCaseSensitive(text, what, 0) : FindCaseInsensitive(text, what, 0);
    return position != std::string::npos;
}

std::size_t kyStringUtils::FindCaseSensitive(const std::string& text, const std::string& what,
                                             std::size_t from)
{
    return text.find(what, from);
}

std::size_t kyStringUtils::FindCaseInsensitive(const std::string& text, const std::string& what,
                                               std::size_t from)
{
    if (from > text.size())
        return std::string::npos;
    const std::string_view rest = std::string_view(text).substr(from);
    const auto* const match =
        std::search(rest.begin(), rest.end(), what.begin(), what.end(),
                    [](char a, char b) { return impl::ToAsciiLower(a) == impl::ToAsciiLower(b); });
    if (match == rest.end() && !what.empty())
        return std::string::npos;
    return from + static_cast<std::size_t>(match - rest.begin());
}

bool kyStringUtils::FindFirstAstrideBuffers(const char* begin1, const char* end1,
                                            const char* begin2, const char* end2,
                                            const char* patternBegin, const char* patternEnd,
                                            const char*& found)
{
    found = nullptr;
    const std::string_view first(begin1, static_cast<std::size_t>(end1 - begin1));
    const std::string_view second(begin2, static_cast<std::size_t>(end2 - begin2));
    const std::string_view pattern(patternBegin,
                                   static_cast<std::size_t>(patternEnd - patternBegin));
    if (pattern.empty())
        return false;
    if (const std::size_t match = first.find(pattern); match != std::string_view::npos)
        found = begin1 + match;
    else if (const char* const astride = FindAstride(first, second, pattern); astride != nullptr)
        found = astride;
    else if (const std::size_t later = second.find(pattern); later != std::string_view::npos)
        found = begin2 + later;
    return found != nullptr;
}

bool kyStringUtils::CompareUTF16Natural(const wchar_t* a, std::size_t aLength, const wchar_t* b,
                                        std::size_t bLength, bool /*caseInsensitive*/)
{
    // kept: no natural order here, and the flag has no effect.
    return std::wstring_view(a, aLength) < std::wstring_view(b, bLength);
}

bool kyStringUtils::CompareUTF8Natural(const std::string& a, const std::string& b,
                                       bool /*caseInsensitive*/)
{
    // kept: no natural order here, and the flag has no effect.
    return a < b;
}

bool kyStringUtils::UTF8NaturalSortFunction(const std::string& a, const std::string& b)
{
    return CompareUTF8Natural(a, b, false);
}

bool kyStringUtils::UTF8NaturalSortFunctionCaseInsensitive(const std::string& a,
                                                           const std::string& b)
{
    return CompareUTF8Natural(a, b, true);
}

int kyStringUtils::compareSoftwareVersion(const std::string& a, const std::string& b,
                                          unsigned long maxComponents)
{
    std::string_view restA = a;
    std::string_view restB = b;
    for (unsigned long compared = 0; !restA.empty() || !restB.empty(); ++compared) {
        if (maxComponents != 0 && compared == maxComponents)
            break;
        const int order =
            CompareVersionComponents(TakeVersionComponent(restA), TakeVersionComponent(restB));
        if (order != 0)
            return order;
    }
    return 0;
}

template void kyStringUtils::Join<std::vector<std::string>>(const std::vector<std::string>&,
                                                            std::string&, const std::string&);

}  // namespace ky

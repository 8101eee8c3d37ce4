// Reads any bytes as an INI file, and what the format can carry again after it is written.

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include "fuzz/Require.h"
#include "text/Ascii.h"
#include "text/IniText.h"
#include "text/ScalarText.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <cstddef>
#include <cstdint>

namespace {

using ky::kyVariant;
using ky::test::Require;
using Map = kyVariant::kyVariantMapImpl;

bool HasOuterSpace(std::string_view text)
{
    return !text.empty() &&
           (ky::impl::IsAsciiSpace(text.front()) || ky::impl::IsAsciiSpace(text.back()));
}

/// Whether a STRING stays what it is: it is written as it is, or in quotes that hide what is in it.
bool CanCarry(const std::string& text)
{
    if (text.find('"') != std::string::npos) {
        const std::size_t escape = text.find('\\');
        return escape == std::string::npos ||
               (escape == text.rfind('\\') && escape + 1 < text.size() &&
                std::string_view("ntr\"").find(text[escape + 1]) == std::string_view::npos);
    }
    return text.find_first_of("\\\n\r\t") == std::string::npos && !HasOuterSpace(text) &&
           ky::impl::ParseScalar(text, ky::impl::CLocale()).getType() == kyVariant::String;
}

/// Whether every key of a section line or key line is read as it is written, and every value too.
bool CanCarry(const std::map<std::string, kyVariant>& flat)
{
    return std::all_of(flat.begin(), flat.end(), [](const auto& entry) {
        const auto& [path, value] = entry;
        const std::size_t slash = path.rfind('/') + 1;
        const std::string_view key = std::string_view(path).substr(slash);
        const std::string_view section = std::string_view(path).substr(0, slash);
        const std::string* const text = value.getString();
        return key.find_first_of("=\n") == std::string_view::npos && key.front() != '[' &&
               key.front() != ';' && !HasOuterSpace(key) && key != "General" &&
               section.find('\n') == std::string_view::npos &&
               !HasOuterSpace(section.substr(0, section.size() - (slash > 0))) &&
               section != "General/" && (text == nullptr || CanCarry(*text));
    });
}

/// Deterministic text of a map, which NaN does not make unequal to itself.
std::string Text(const Map& map)
{
    return kyVariant(map).toString();
}

bool Read(std::string text, Map& map)
{
    std::string problem;
    const bool isGood = ky::impl::ReadIni(text, map, problem);
    Require(isGood == problem.empty());
    return isGood;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool isInitialized = [] {
        ky::initializeKySystem(ky::InitType::Light, false);
        ky::kyLog::Instance()->setEchoToConsole(false);
        return true;
    }();
    Require(isInitialized);
    const std::string input(reinterpret_cast<const char*>(data), size);
    Map map;
    Read(input, map);
    Require(ky::impl::HasPlainPaths(map));
    Map assigned;
    ky::impl::AssignValues(map, assigned);
    Require(Text(assigned) == Text(map));
    const std::string written = ky::impl::WriteIni(map);
    std::map<std::string, kyVariant> flat;
    map.toFlattenMap(flat);
    if (!CanCarry(flat))
        return 0;
    Map again;
    Require(Read(written, again));
    Require(Text(again) == Text(map) && ky::impl::WriteIni(again) == written);
    return 0;
}

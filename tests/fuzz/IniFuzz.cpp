// Reads any bytes as an INI file, and what the format can carry again after it is written.

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include "fuzz/Require.h"
#include "text/IniText.h"
#include "text/ScalarText.h"

#include <map>
#include <string>

#include <cstddef>
#include <cstdint>

namespace {

using ky::kyVariant;
using ky::test::Require;
using Map = kyVariant::kyVariantMapImpl;

/// Whether a STRING stays what it is for certain: written as it is, or in quotes that hide what is
/// in it.
bool CanCarry(const std::string& text)
{
    const bool isQuoted = text.find('"') != std::string::npos;
    return text.find('\\') == std::string::npos &&
           (isQuoted ||
            (text.find_first_of(" \t\n\v\f\r") == std::string::npos &&
             ky::impl::ParseScalar(text, ky::impl::CLocale()).getType() == kyVariant::String));
}

/// Whether such a key of a section line or key line is read as it is written, and its value too.
bool CanCarry(const std::string& path, const kyVariant& value)
{
    return path.find_first_of("=[; \t\n\v\f\r") == std::string::npos &&
           path.find("General") == std::string::npos &&
           (value.getString() == nullptr || CanCarry(*value.getString()));
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
    static ky::kyLog* const log = [] {
        ky::initializeKySystem(ky::InitType::Light, false);
        return ky::kyLog::Instance();
    }();
    log->setEchoToConsole(false);
    const std::string input(reinterpret_cast<const char*>(data), size);
    Map map;
    Read(input, map);
    Require(ky::impl::HasPlainPaths(map));
    Map assigned;
    ky::impl::AssignValues(map, assigned);
    Require(Text(assigned) == Text(map));
    ky::impl::WriteIni(map);
    std::map<std::string, kyVariant> flat;
    map.toFlattenMap(flat);
    Map kept;
    for (const auto& [path, value] : flat)
        if (CanCarry(path, value))
            *kept.editValuePath(path) = value;
    const std::string written = ky::impl::WriteIni(kept);
    Map again;
    Require(Read(written, again));
    Require(Text(again) == Text(kept) && ky::impl::WriteIni(again) == written);
    return 0;
}

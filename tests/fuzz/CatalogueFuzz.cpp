// Reads any bytes as a catalogue, and every truncation and every flipped bit of a valid one that is
// made from them.

#include "../../examples/Catalogue.h"

#include "fuzz/Require.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <string_view>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

using ky::test::Require;

bool Read(std::string_view bytes, Catalogue& entries)
{
    ky::kyIoDeviceByteContainerReadOnly device(bytes.data(), bytes.size());
    std::string error;
    const bool isGood = ReadCatalogue(device, entries, error);
    Require(isGood == error.empty());
    return isGood;
}

std::string Write(const Catalogue& entries)
{
    std::ostringstream text;
    ky::kyIoDeviceStdStreamProxy device(&text);
    std::string error;
    Require(WriteCatalogue(device, entries, error));
    return text.str();
}

/// Entries whose names and numbers are the input's bytes.
Catalogue Make(std::string_view input)
{
    Catalogue entries;
    while (!input.empty() && entries.size() < 8) {
        CatalogueEntry& entry = entries.emplace_back();
        entry.name = input.substr(1, static_cast<unsigned char>(input[0]) % 16);
        input.remove_prefix(1 + entry.name.size());
        std::memcpy(&entry.sizeBytes, input.data(), std::min(input.size(), sizeof(long)));
        std::memcpy(&entry.modifiedSeconds, input.data(), std::min(input.size(), sizeof(long)));
        entry.isExecutable = input.size() % 2 == 1;
    }
    return entries;
}

/// `withHugeLengths` flips bits that announce a body of megabytes, too, which takes its time.
void ReadDamaged(const Catalogue& entries, bool withHugeLengths)
{
    constexpr std::size_t lengthStart = 8;
    Catalogue read;
    std::string file = Write(entries);
    Require(Read(file, read) && read == entries);
    for (std::size_t size = 0; size < file.size(); ++size)
        Require(!Read(std::string_view(file).substr(0, size), read));
    for (std::size_t i = 0; i < file.size(); ++i)
        for (int bit = 0; bit < 8; ++bit) {
            if (!withHugeLengths && (i == lengthStart || i == lengthStart + 1))
                continue;
            const char whole = file[i];
            file[i] = static_cast<char>(whole ^ (1 << bit));
            Require(!Read(file, read));
            file[i] = whole;
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    Catalogue entries;
    if (Read(input, entries)) {
        Catalogue again;
        Require(Read(Write(entries), again) && again == entries);
    }
    if (size < 256)
        ReadDamaged(Make(input), size % 64 == 0);
    return 0;
}

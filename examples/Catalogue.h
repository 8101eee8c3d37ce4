#pragma once

#include "ky/kyDataStream.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

/// A file format of a program: the files of a folder, with their sizes and times.
///
///     bytes   4 "kyCa", unsigned int version, unsigned int length of the body
///     body    unsigned int number of entries, then for each: text name, unsigned long size in
///             bytes, long seconds since the epoch, bool whether anyone may execute it
///     check   unsigned int CRC-32 of the body (ISO 3309)
///
/// All numbers are big-endian. The body is one text of the data stream, so that its check is
/// known to be right before anything in it is believed.
struct CatalogueEntry {
    std::string name;
    unsigned long sizeBytes = 0;
    long modifiedSeconds = 0;
    bool isExecutable = false;

    bool operator==(const CatalogueEntry& other) const
    {
        return name == other.name && sizeBytes == other.sizeBytes &&
               modifiedSeconds == other.modifiedSeconds && isExecutable == other.isExecutable;
    }
};
using Catalogue = std::vector<CatalogueEntry>;

constexpr std::string_view sCatalogueMagic = "kyCa";
constexpr unsigned sCatalogueVersion = 1;

/// A device that keeps what is written to it.
class BodyDevice : public ky::kyIoDevice {
public:
    explicit BodyDevice(std::vector<char>& bytes) : kyIoDevice(DataWayWrite), mBytes(bytes) {}
    unsigned long readBytes(char* /*dst*/, unsigned long /*n*/) override { return 0; }
    unsigned long writeBytes(const char* src, unsigned long n) override
    {
        mBytes.insert(mBytes.end(), src, src + n);
        return n;
    }
    bool atEnd() const override { return true; }

private:
    std::vector<char>& mBytes;
};

inline unsigned Crc32(const std::vector<char>& bytes)
{
    static const std::array<unsigned, 256> table = [] {
        std::array<unsigned, 256> made{};
        for (unsigned i = 0; i < made.size(); ++i) {
            made[i] = i;
            for (int bit = 0; bit < 8; ++bit)
                made[i] = (made[i] >> 1) ^ ((made[i] & 1) != 0 ? 0xEDB88320u : 0u);
        }
        return made;
    }();
    unsigned crc = ~0u;
    for (const char byte : bytes)
        crc = (crc >> 8) ^ table[(crc ^ static_cast<unsigned char>(byte)) & 0xFF];
    return ~crc;
}

/// False, always.
inline bool Fail(std::string& error, const std::string& text)
{
    error = text;
    return false;
}

//! [writing]
/// False, with the reason in `error`.
inline bool WriteCatalogue(ky::kyIoDevice& device, const Catalogue& entries, std::string& error)
{
    std::vector<char> body;
    BodyDevice bodyDevice(body);
    ky::kyDataStream bodyStream(bodyDevice, ky::kyDataStream::BigEndian);
    bodyStream << static_cast<unsigned>(entries.size());
    for (const CatalogueEntry& entry : entries)
        bodyStream << entry.name << entry.sizeBytes << entry.modifiedSeconds << entry.isExecutable;

    if (!bodyStream.isOk() || body.size() > std::numeric_limits<unsigned>::max())
        return Fail(error, "cannot be written: it is larger than 4 GiB");

    ky::kyDataStream stream(device, ky::kyDataStream::BigEndian);
    stream.writeRawData(sCatalogueMagic.data(), sCatalogueMagic.size());
    stream << sCatalogueVersion << body << Crc32(body);
    return stream.isOk() || Fail(error, "cannot be written: " + stream.getErrorMsg());
}
//! [writing]

/// False, with the reason in `error` and `entries` unspecified, for whatever is no whole and
/// undamaged catalogue.
inline bool ReadCatalogue(ky::kyIoDevice& device, Catalogue& entries, std::string& error)
{
    ky::kyDataStream stream(device, ky::kyDataStream::BigEndian);
    std::string magic(sCatalogueMagic.size(), '\0');
    unsigned version = 0;
    stream.readRawBytes(magic.data(), magic.size());
    if (stream.isOk() && magic != sCatalogueMagic)
        return Fail(error, "is no catalogue");
    stream >> version;
    if (stream.isOk() && version != sCatalogueVersion)
        return Fail(error, "has the unknown version " + std::to_string(version));
    std::vector<char> body;
    unsigned check = 0;
    stream >> body >> check;
    if (!stream.isOk())
        return Fail(error, device.good() ? "is truncated" : device.getDeviceErrorMsg());
    if (check != Crc32(body))
        return Fail(error, "is corrupt: its check is wrong");

    ky::kyIoDeviceByteContainerReadOnly bodyDevice(body.data(), body.size());
    ky::kyDataStream bodyStream(bodyDevice, ky::kyDataStream::BigEndian);
    unsigned count = 0;
    bodyStream >> count;
    entries.clear();
    // A count is no reason to ask for memory: each entry has to be there.
    while (bodyStream.isOk() && entries.size() < count) {
        CatalogueEntry& entry = entries.emplace_back();
        bodyStream >> entry.name >> entry.sizeBytes >> entry.modifiedSeconds >> entry.isExecutable;
    }
    if (!bodyStream.isOk() || !bodyDevice.atEnd())
        return Fail(error, "is corrupt: its entries do not fill it");
    if (!device.atEnd())
        return Fail(error, "is corrupt: it goes on behind its end");
    return true;
}

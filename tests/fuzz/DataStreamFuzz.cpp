// Reads a sequence of types from any bytes. The input: one byte whose lowest bit is the byte order
// and whose highest four allow, when set, texts that announce more than is there; one with the
// number of types, the types, and what they are read from. Such texts cost up to 16 MiB each, and
// fuzzing has better uses for the time than to read them in every run.

#include "ky/kyDataStream.h"

#include "fuzz/Require.h"

#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

using ky::kyDataStream;
using ky::test::Require;

/// What reading gave: the values, written again, and how far it came.
struct Outcome {
    std::string rewritten;
    bool isOk = false;
    bool operator==(const Outcome& other) const = default;
};

template <typename Value>
void Copy(kyDataStream& from, kyDataStream& to)
{
    Value value{};
    from >> value;
    if (from.isOk())
        to << value;
    if constexpr (!std::is_arithmetic_v<Value>)
        Require(from.isOk() || value.empty());
}

void CopyRaw(kyDataStream& from, kyDataStream& to)
{
    char bytes[7] = {};
    const unsigned long got = from.readRawBytes(bytes, sizeof bytes);
    Require(got == sizeof bytes || !from.isOk());
    to.writeRawData(bytes, got);
}

using Copier = void (*)(kyDataStream&, kyDataStream&);

template <typename... Values>
Copier ChooseCopier(char type)
{
    constexpr Copier copiers[] = {Copy<Values>..., CopyRaw};
    return copiers[static_cast<unsigned char>(type) % std::size(copiers)];
}

constexpr auto CopierOf =
    ChooseCopier<bool, char, signed char, unsigned char, short, unsigned short, int, unsigned int,
                 long, unsigned long, float, double, std::string, std::vector<char>>;

struct Script {
    std::string_view types;
    kyDataStream::Endianness order;
    bool allowsHostileTexts;
    std::string_view bytes;
};

/// Whether a text that is read at the position announces more than 64 KiB.
bool IsHostile(const Script& script, long position)
{
    unsigned length = 0;
    if (position < 0 || script.bytes.size() - static_cast<unsigned long>(position) < sizeof length)
        return false;
    std::memcpy(&length, script.bytes.data() + position, sizeof length);
    if (script.order == kyDataStream::BigEndian)
        length = __builtin_bswap32(length);
    return length > 65536;
}

Outcome Run(const Script& script, ky::kyIoDeviceRandomAccess& source)
{
    std::ostringstream text;
    ky::kyIoDeviceStdStreamProxy sink(&text);
    kyDataStream from(source, script.order);
    kyDataStream to(sink, script.order);
    for (const char type : script.types) {
        Copier copy = CopierOf(type);
        const bool isText = copy == Copy<std::string> || copy == Copy<std::vector<char>>;
        if (isText && !script.allowsHostileTexts && IsHostile(script, source.getCurrentPos()))
            copy = CopyRaw;
        copy(from, to);
    }
    Require(to.isOk() && source.good());
    return {text.str(), from.isOk()};
}

Outcome RunOnBytes(const Script& script)
{
    ky::kyIoDeviceByteContainerReadOnly source(script.bytes.data(), script.bytes.size());
    return Run(script, source);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::string_view input(reinterpret_cast<const char*>(data + 2), size - 2);
    Script script;
    script.order = (data[0] & 1) != 0 ? kyDataStream::BigEndian : kyDataStream::LittleEndian;
    script.allowsHostileTexts = data[0] >> 4 == 0xF;
    script.types = input.substr(0, data[1]);
    script.bytes = input.substr(script.types.size());

    const Outcome outcome = RunOnBytes(script);
    Require(outcome.rewritten.size() <= script.bytes.size());
    std::istringstream text{std::string(script.bytes)};
    ky::kyIoDeviceStdStreamProxy proxy(static_cast<std::istream*>(&text));
    Require(Run(script, proxy) == outcome);
    // A bool may change the first time, from 01 to FF; nothing does the second time.
    script.bytes = outcome.rewritten;
    if (outcome.isOk)
        Require(RunOnBytes(script) == outcome);
    return 0;
}

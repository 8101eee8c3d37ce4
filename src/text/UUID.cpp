#include "ky/UUID.h"

#include <cstring>

namespace ky {
namespace {

constexpr std::size_t sByteCount = 16;
constexpr std::size_t sCompactLength = 2 * sByteCount;
constexpr std::size_t sDashedLength = sCompactLength + 4;

bool HasDashBefore(std::size_t byteIndex)
{
    return byteIndex == 4 || byteIndex == 6 || byteIndex == 8 || byteIndex == 10;
}

/// -1 for anything but a hexadecimal digit, in whatever locale.
int DigitValue(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}

}  // namespace

template <UUID::Format Layout>
void UUID::BinaryToString(const void* bytes, std::string& out)
{
    static constexpr char sDigits[] = "0123456789abcdef";
    const auto* const values = static_cast<const unsigned char*>(bytes);
    char text[sDashedLength];
    std::size_t length = 0;
    for (std::size_t i = 0; i < sByteCount; ++i) {
        if (Layout == Dashed && HasDashBefore(i))
            text[length++] = '-';
        text[length++] = sDigits[values[i] >> 4];
        text[length++] = sDigits[values[i] & 0xF];
    }
    out.assign(text, length);
}

template void UUID::BinaryToString<UUID::Dashed>(const void* bytes, std::string& out);
template void UUID::BinaryToString<UUID::Compact>(const void* bytes, std::string& out);

bool UUID::StringToBinary(std::string_view text, unsigned char* out16)
{
    const bool dashed = text.size() == sDashedLength;
    if (!dashed && text.size() != sCompactLength)
        return false;
    unsigned char values[sByteCount];
    const char* next = text.data();
    for (std::size_t i = 0; i < sByteCount; ++i) {
        if (dashed && HasDashBefore(i) && *next++ != '-')
            return false;
        const int high = DigitValue(*next++);
        const int low = DigitValue(*next++);
        if (high < 0 || low < 0)
            return false;
        values[i] = static_cast<unsigned char>(high * 16 + low);
    }
    std::memcpy(out16, values, sByteCount);
    return true;
}

}  // namespace ky

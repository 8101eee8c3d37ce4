#pragma once

#include "ky/kyExport.h"
#include "ky/kyIoDevice.h"

#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace ky {

/// Writes and reads plain values in a fixed binary layout over a borrowed device.
///
/// | type                           | bytes                                                    |
/// |--------------------------------|----------------------------------------------------------|
/// | bool                           | 1, FF or 00; anything but 00 is read as true             |
/// | char, signed or unsigned too   | 1                                                        |
/// | short, int, long, unsigned too | 2, 4, 8 in the order chosen                              |
/// | float, double                  | 4, 8: IEEE 754, ordered like a number of that size       |
/// | text, std::vector<char>        | the length as an unsigned int, then the bytes            |
///
/// There is no framing and no type tag: a reader reads the types that the writer wrote. Each value
/// is one call of the device's `readBytes` or `writeBytes` and its text a second one (several on
/// reading where it is longer than 16 MiB), so calls to stream and device may be mixed.
///
/// A failure clears the sticky ok flag until the next `setIoDevice`. Text and raw data are skipped
/// from then on; numbers, characters and bools still reach the device. The length of a text is not
/// trusted: above 16 MiB memory grows with the bytes that come. Nothing throws but running out of
/// memory. For one thread at a time.
class KY_API kyDataStream {
public:
    /// Any value but 1 is little-endian.
    enum Endianness : int { LittleEndian = 0, BigEndian = 1 };

    /// Without a device, not ok, until `setIoDevice`.
    kyDataStream() = default;

    /// The device may be null: every value then fails.
    kyDataStream(kyIoDevice* device, Endianness endianness) { setIoDevice(device, endianness); }
    kyDataStream(kyIoDevice& device, Endianness endianness) : kyDataStream(&device, endianness) {}

    /// Goes on with another device, which may be null, and another order, with the ok flag set.
    void setIoDevice(kyIoDevice* device, Endianness endianness);
    /// The order for the values that follow.
    void setEndianness(Endianness endianness) { mEndianness = endianness; }
    Endianness getEndianness() const { return mEndianness; }

    /// The ok flag and, with a device, its `good()`.
    bool isOk() const { return mIsOk && (mDevice == nullptr || mDevice->good()); }

    /// What the device tells. The stream's own "Write error", "Read error", "Trying to write 4GB+
    /// string" and "Fail to write string data" do not appear in it, see `setError`.
    std::string getErrorMsg() const;

    /// Clears the ok flag. The text replaces one that is there already, and there never is one.
    void setError(const std::string& msg);

    /// The value's bytes as one call of the device. False when not all were moved, or without a
    /// device. The big-endian ones reverse them, in a copy; a reading one that fails leaves its
    /// target as it was, where a little-endian one may have moved a part.
    bool write1Byte(const char* value) { return write<1, false>(value); }
    bool write2BytesLittleEndian(char* value) { return write<2, false>(value); }
    bool write4BytesLittleEndian(char* value) { return write<4, false>(value); }
    bool write8BytesLittleEndian(char* value) { return write<8, false>(value); }
    bool write2BytesBigEndian(char* value) { return write<2, true>(value); }
    bool write4BytesBigEndian(char* value) { return write<4, true>(value); }
    bool write8BytesBigEndian(char* value) { return write<8, true>(value); }
    bool read1Byte(char* value) { return read<1, false>(value); }
    bool read2BytesLittleEndian(char* value) { return read<2, false>(value); }
    bool read4BytesLittleEndian(char* value) { return read<4, false>(value); }
    bool read8BytesLittleEndian(char* value) { return read<8, false>(value); }
    bool read2BytesBigEndian(char* value) { return read<2, true>(value); }
    bool read4BytesBigEndian(char* value) { return read<4, true>(value); }
    bool read8BytesBigEndian(char* value) { return read<8, true>(value); }

    /// Returns the ok flag: true, too, for nothing written because only the device is in error.
    bool writeRawData(const char* data, unsigned long n);

    /// Returns how many bytes came. Nothing is read, and nothing fails, for `n` 0 or a null `dst`.
    unsigned long readRawBytes(char* dst, unsigned long n);

    /// In the layout of the table; `isOk` tells whether it went.
    kyDataStream& operator<<(bool value) { return put(value ? '\xFF' : '\0'); }
    kyDataStream& operator<<(char value) { return put(value); }
    kyDataStream& operator<<(signed char value) { return put(value); }
    kyDataStream& operator<<(unsigned char value) { return put(value); }
    kyDataStream& operator<<(short value) { return put(value); }
    kyDataStream& operator<<(unsigned short value) { return put(value); }
    kyDataStream& operator<<(int value) { return put(value); }
    kyDataStream& operator<<(unsigned int value) { return put(value); }
    kyDataStream& operator<<(long value) { return put(value); }
    kyDataStream& operator<<(unsigned long value) { return put(value); }
    kyDataStream& operator<<(float value) { return put(value); }
    kyDataStream& operator<<(double value) { return put(value); }

    /// More than 4 GiB - 1 bytes are an error and write nothing.
    kyDataStream& operator<<(std::string_view text);
    kyDataStream& operator<<(const std::vector<char>& bytes);

    /// Up to its terminator; null is an empty text.
    kyDataStream& operator<<(const char* text);

    /// What has no layout of its own: other pointers would be taken for bools, enumerations and
    /// wide characters for numbers of some size. Cast to the type that the reader reads.
    template <typename Value,
              std::enable_if_t<
                  std::is_scalar_v<Value> && !std::is_convertible_v<Value, const char*>, int> = 0>
    kyDataStream& operator<<(Value) = delete;

    /// False after a failure.
    kyDataStream& operator>>(bool& value);

    /// After a failure the target is as the reading primitives leave it.
    kyDataStream& operator>>(char& value) { return get(value); }
    kyDataStream& operator>>(signed char& value) { return get(value); }
    kyDataStream& operator>>(unsigned char& value) { return get(value); }
    kyDataStream& operator>>(short& value) { return get(value); }
    kyDataStream& operator>>(unsigned short& value) { return get(value); }
    kyDataStream& operator>>(int& value) { return get(value); }
    kyDataStream& operator>>(unsigned int& value) { return get(value); }
    kyDataStream& operator>>(long& value) { return get(value); }
    kyDataStream& operator>>(unsigned long& value) { return get(value); }
    kyDataStream& operator>>(float& value) { return get(value); }
    kyDataStream& operator>>(double& value) { return get(value); }

    /// Empty after a failure.
    kyDataStream& operator>>(std::vector<char>& bytes);
    kyDataStream& operator>>(std::string& text);

private:
    /// `N` bytes in reverse, within registers.
    template <unsigned N>
    static void Reverse(char* to, const char* from)
    {
        static_assert(N == 2 || N == 4 || N == 8, "the sizes of numbers");
        if constexpr (N == 2) {
            unsigned short word;
            std::memcpy(&word, from, N);
            word = __builtin_bswap16(word);
            std::memcpy(to, &word, N);
        } else if constexpr (N == 4) {
            unsigned int word;
            std::memcpy(&word, from, N);
            word = __builtin_bswap32(word);
            std::memcpy(to, &word, N);
        } else {
            unsigned long word;
            std::memcpy(&word, from, N);
            word = __builtin_bswap64(word);
            std::memcpy(to, &word, N);
        }
    }

    template <unsigned N, bool reversed>
    bool write(const char* value)
    {
        if constexpr (reversed) {
            char bytes[N];
            Reverse<N>(bytes, value);
            return mDevice != nullptr && mDevice->writeBytes(bytes, N) == N;
        } else {
            return mDevice != nullptr && mDevice->writeBytes(value, N) == N;
        }
    }

    template <unsigned N, bool reversed>
    bool read(char* value)
    {
        if constexpr (reversed) {
            char bytes[N];
            if (mDevice == nullptr || mDevice->readBytes(bytes, N) != N)
                return false;
            Reverse<N>(value, bytes);
            return true;
        } else {
            return mDevice != nullptr && mDevice->readBytes(value, N) == N;
        }
    }

    template <typename Value>
    kyDataStream& put(Value value)
    {
        constexpr unsigned size = sizeof(Value);
        const char* const bytes = reinterpret_cast<const char*>(&value);
        bool isDone;
        if constexpr (size == 1)
            isDone = write1Byte(bytes);
        else
            isDone =
                mEndianness == BigEndian ? write<size, true>(bytes) : write<size, false>(bytes);
        if (!isDone)
            failToWrite();
        return *this;
    }

    template <typename Value>
    kyDataStream& get(Value& value)
    {
        constexpr unsigned size = sizeof(Value);
        char* const bytes = reinterpret_cast<char*>(&value);
        bool isDone;
        if constexpr (size == 1)
            isDone = read1Byte(bytes);
        else
            isDone = mEndianness == BigEndian ? read<size, true>(bytes) : read<size, false>(bytes);
        if (!isDone)
            failToRead();
        return *this;
    }

    template <typename Container>
    void getBytes(Container& bytes);
    void failToWrite();
    void failToRead();

    kyIoDevice* mDevice = nullptr;
    std::string mErrorMsg;
    Endianness mEndianness = LittleEndian;
    bool mIsOk = false;
};

}  // namespace ky

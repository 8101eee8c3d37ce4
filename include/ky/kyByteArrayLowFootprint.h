#pragma once

#include "ky/kyExport.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ky {

/// A byte string of one pointer, for containers of very many values that are mostly empty. It is
/// null, empty or filled; a filled one owns one block of length + 5 bytes.
///
/// Holds at most 4 GiB - 1 bytes; more throws `std::length_error`. An array is unchanged by a
/// function that throws. Bytes given to it may be its own. Every change makes a new block, except
/// `resizeAndClear` to the same size. For one thread at a time.
class KY_API kyByteArrayLowFootprint {
public:
    /// Empty.
    kyByteArrayLowFootprint() = default;

    /// A copy of the bytes; empty when there are none.
    explicit kyByteArrayLowFootprint(const std::string& bytes);

    /// In the same state as `other`, with a block of its own.
    kyByteArrayLowFootprint(const kyByteArrayLowFootprint& other);

    /// Leaves `other` empty.
    kyByteArrayLowFootprint(kyByteArrayLowFootprint&& other) noexcept { swap(other); }

    ~kyByteArrayLowFootprint()
    {
        // A null array stays null to the very end, so that static objects may still read `sNull`.
        if (isFilled())
            freeBlock();
    }

    /// As the constructors.
    kyByteArrayLowFootprint& operator=(const kyByteArrayLowFootprint& other);
    kyByteArrayLowFootprint& operator=(kyByteArrayLowFootprint&& other) noexcept;

    /// Copies the bytes. Without any (`data` null or `n` 0) the array is empty then, not null.
    void setData(const char* data, unsigned long n);

    /// Empty, not null, afterwards.
    void clear() { setData(nullptr, 0); }

    /// Null afterwards.
    void setToNull();

    /// `n` bytes of `fill`, in place when the size is `n` already: a null array resized to 0 stays
    /// null.
    void resizeAndClear(unsigned long n, char fill);

    /// Exchanges the blocks; copies no byte.
    void swap(kyByteArrayLowFootprint& other) noexcept
    {
        const std::uintptr_t word = mWord;
        mWord = other.mWord;
        other.mWord = word;
    }

    /// False for empty.
    bool isNull() const { return mWord == sNullWord; }

    /// True for null too.
    bool isEmpty() const { return !isFilled(); }
    bool empty() const { return isEmpty(); }

    /// In bytes; 0 for null too.
    unsigned int size() const;

    /// The bytes, followed by a zero byte. Never a null pointer: without bytes it is the address of
    /// a zero byte that must not be written. Valid until the next change.
    const char* rawData() const;
    const char* constRawData() const { return rawData(); }

    /// Null when there are no bytes.
    char* editRawData();

    /// Valid until the next change.
    std::string_view toStringView() const { return {rawData(), size()}; }

    /// Replaces the content of `out` by a copy of the bytes.
    void toByteVector(std::vector<char>& out) const;

    /// Same state and same bytes: null and empty differ.
    bool operator==(const kyByteArrayLowFootprint& other) const;
    bool operator!=(const kyByteArrayLowFootprint& other) const { return !(*this == other); }

    /// Not lexicographic: null, then empty, then filled; of filled ones the shorter first, and by
    /// unsigned bytes where the lengths are equal.
    bool operator<(const kyByteArrayLowFootprint& other) const;
    bool operator<=(const kyByteArrayLowFootprint& other) const { return !(other < *this); }
    bool operator>(const kyByteArrayLowFootprint& other) const { return other < *this; }
    bool operator>=(const kyByteArrayLowFootprint& other) const { return !(*this < other); }

    /// Null, from before the first static constructor until after the last static destructor.
    static const kyByteArrayLowFootprint sNull;

private:
    static constexpr std::uintptr_t sEmptyWord = 0;
    static constexpr std::uintptr_t sNullWord = ~std::uintptr_t{0};

    constexpr explicit kyByteArrayLowFootprint(std::uintptr_t word) noexcept : mWord(word) {}
    bool isFilled() const { return mWord != sEmptyWord && mWord != sNullWord; }
    // No pointer is kept instead of the word: that of null could not be a constant.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    char* block() const { return reinterpret_cast<char*>(mWord); }
    void freeBlock() noexcept;
    void replaceBlock(std::uintptr_t word) noexcept;

    std::uintptr_t mWord = sEmptyWord;  // or sNullWord, or the address of length, bytes and a zero
};

static_assert(sizeof(kyByteArrayLowFootprint) == sizeof(void*), "it is made for being small");

}  // namespace ky

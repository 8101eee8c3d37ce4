#include "ky/kyByteArrayLowFootprint.h"

#include <new>
#include <stdexcept>
#include <utility>

#include <climits>
#include <cstring>

namespace ky {
namespace {

constexpr unsigned long sLengthBytes = sizeof(unsigned int);

/// A block for `n` bytes, with its length and its terminator.
char* MakeBlock(unsigned long n)
{
    if (n > UINT_MAX)
        throw std::length_error("kyByteArrayLowFootprint holds at most 4 GiB - 1 bytes");
    const auto length = static_cast<unsigned int>(n);
    char* const block = static_cast<char*>(::operator new(sLengthBytes + n + 1));
    std::memcpy(block, &length, sLengthBytes);
    block[sLengthBytes + n] = '\0';
    return block;
}

}  // namespace

constinit const kyByteArrayLowFootprint kyByteArrayLowFootprint::sNull{
    kyByteArrayLowFootprint::sNullWord};

kyByteArrayLowFootprint::kyByteArrayLowFootprint(const std::string& bytes)
{
    setData(bytes.data(), bytes.size());
}

kyByteArrayLowFootprint::kyByteArrayLowFootprint(const kyByteArrayLowFootprint& other)
{
    if (other.isNull())
        mWord = sNullWord;
    else
        setData(other.rawData(), other.size());
}

kyByteArrayLowFootprint& kyByteArrayLowFootprint::operator=(const kyByteArrayLowFootprint& other)
{
    if (this != &other)
        kyByteArrayLowFootprint(other).swap(*this);
    return *this;
}

kyByteArrayLowFootprint& kyByteArrayLowFootprint::operator=(
    kyByteArrayLowFootprint&& other) noexcept
{
    kyByteArrayLowFootprint taken(std::move(other));
    taken.swap(*this);
    return *this;
}

void kyByteArrayLowFootprint::setData(const char* data, unsigned long n)
{
    if (data == nullptr || n == 0)
        return replaceBlock(sEmptyWord);
    // Copied before the old block goes: the bytes may be in it.
    char* const made = MakeBlock(n);
    std::memcpy(made + sLengthBytes, data, n);
    replaceBlock(reinterpret_cast<std::uintptr_t>(made));
}

void kyByteArrayLowFootprint::setToNull()
{
    replaceBlock(sNullWord);
}

void kyByteArrayLowFootprint::resizeAndClear(unsigned long n, char fill)
{
    if (n != size())
        replaceBlock(n == 0 ? sEmptyWord : reinterpret_cast<std::uintptr_t>(MakeBlock(n)));
    if (n != 0)
        std::memset(editRawData(), fill, n);
}

unsigned int kyByteArrayLowFootprint::size() const
{
    unsigned int length = 0;
    if (isFilled())
        std::memcpy(&length, block(), sLengthBytes);
    return length;
}

const char* kyByteArrayLowFootprint::rawData() const
{
    return isFilled() ? block() + sLengthBytes : "";
}

char* kyByteArrayLowFootprint::editRawData()
{
    return isFilled() ? block() + sLengthBytes : nullptr;
}

void kyByteArrayLowFootprint::toByteVector(std::vector<char>& out) const
{
    out.assign(rawData(), rawData() + size());
}

bool kyByteArrayLowFootprint::operator==(const kyByteArrayLowFootprint& other) const
{
    return isNull() == other.isNull() && toStringView() == other.toStringView();
}

bool kyByteArrayLowFootprint::operator<(const kyByteArrayLowFootprint& other) const
{
    if (isNull() || other.isNull())
        return isNull() && !other.isNull();
    if (size() != other.size())
        return size() < other.size();
    return std::memcmp(rawData(), other.rawData(), size()) < 0;
}

void kyByteArrayLowFootprint::freeBlock() noexcept
{
    ::operator delete(block());
}

void kyByteArrayLowFootprint::replaceBlock(std::uintptr_t word) noexcept
{
    if (isFilled())
        freeBlock();
    mWord = word;
}

}  // namespace ky

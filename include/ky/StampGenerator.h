#pragma once

#include "ky/kyExport.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace ky {

/// A number that tells things apart: of two stamps of one generator the greater one is the later.
class Stamp {
public:
    /// Any number, as one that `value` gave.
    explicit constexpr Stamp(unsigned long value) : mValue(value) {}

    /// The number, for texts and files.
    constexpr unsigned long value() const { return mValue; }

    /// By number.
    friend constexpr bool operator==(Stamp a, Stamp b) { return a.mValue == b.mValue; }
    friend constexpr bool operator!=(Stamp a, Stamp b) { return a.mValue != b.mValue; }
    friend constexpr bool operator<(Stamp a, Stamp b) { return a.mValue < b.mValue; }
    friend constexpr bool operator<=(Stamp a, Stamp b) { return a.mValue <= b.mValue; }
    friend constexpr bool operator>(Stamp a, Stamp b) { return a.mValue > b.mValue; }
    friend constexpr bool operator>=(Stamp a, Stamp b) { return a.mValue >= b.mValue; }

private:
    std::uint64_t mValue;
};

/// Hands out the stamps 1, 2, 3 and so on, each once. 0 is free to mean "no stamp".
class KY_API StampGenerator {
public:
    StampGenerator();
    virtual ~StampGenerator();
    StampGenerator(const StampGenerator&) = delete;
    StampGenerator& operator=(const StampGenerator&) = delete;

    /// Any thread; never blocks.
    Stamp generateStamp();

private:
    const std::unique_ptr<std::atomic<std::uint64_t>> mNext;
};

}  // namespace ky

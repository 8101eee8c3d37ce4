#include "ky/StampGenerator.h"

namespace ky {

StampGenerator::StampGenerator() : mNext(std::make_unique<std::atomic<std::uint64_t>>(1)) {}

StampGenerator::~StampGenerator() = default;

Stamp StampGenerator::generateStamp()
{
    return Stamp(mNext->fetch_add(1, std::memory_order_relaxed));
}

}  // namespace ky

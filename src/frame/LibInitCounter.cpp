#include "ky/kySystem.h"

namespace ky::impl {

constinit std::atomic<bool> LibInitCounter::msLibInitWarnings{true};

LibInitCounter::LibInitCounter(const char* name, bool flag)
    : mFlag(flag), mName(name != nullptr ? name : "n/a")
{}

LibInitCounter::~LibInitCounter() = default;

bool LibInitCounter::incrementInitCounter()
{
    mEverIncremented.store(true, std::memory_order_relaxed);
    return mCounter.fetch_add(1, std::memory_order_relaxed) + 1U == 1U;
}

bool LibInitCounter::decrementInitCounter()
{
    return mCounter.fetch_sub(1, std::memory_order_relaxed) - 1U == 0U;
}

void LibInitCounter::clearInitCounter()
{
    mCounter.store(0, std::memory_order_relaxed);
}

std::uint32_t LibInitCounter::getInitCounter() const
{
    return mCounter.load(std::memory_order_relaxed);
}

bool LibInitCounter::isInitialized() const
{
    return getInitCounter() != 0;
}

const std::string& LibInitCounter::getName() const
{
    return mName;
}

void LibInitCounter::SetLibInitWarningsEnabled(bool enabled)
{
    msLibInitWarnings.store(enabled, std::memory_order_relaxed);
}

}  // namespace ky::impl

#include "ky/kySemaphore.h"

namespace ky {
namespace {
constexpr unsigned long sNoTimeLimit = ~0UL;
}  // namespace

kySemaphore::kySemaphore(unsigned int initial) : mStock(initial) {}

void kySemaphore::acquire(unsigned int n)
{
    kyMutexLocker lock(mMutex, true);
    // A waiter can wake for nothing (pthread_cond_wait(3p)) or find that a faster thread took
    // the stock, so only the stock decides.
    while (mStock.load(std::memory_order_relaxed) < n)
        mReleased.wait(&mMutex, sNoTimeLimit);
    mStock.fetch_sub(n, std::memory_order_relaxed);
}

void kySemaphore::release(unsigned int n)
{
    // kept: releasing nothing takes no lock and wakes nobody.
    if (n == 0)
        return;
    kyMutexLocker lock(mMutex, true);
    mStock.fetch_add(n, std::memory_order_relaxed);
    // Waking one could pick a waiter whose request is still too large and leave one asleep
    // that could go on.
    mReleased.wakeAll();
}

unsigned int kySemaphore::getNoResources() const
{
    return mStock.load(std::memory_order_relaxed);
}

}  // namespace ky

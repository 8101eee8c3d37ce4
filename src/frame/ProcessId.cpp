#include "frame/ProcessId.h"

#include <atomic>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

namespace ky::impl {
namespace {

using Slot = std::atomic<unsigned long>;

constinit std::atomic<Slot*> sSlot{nullptr};
constinit std::atomic<bool> sUnavailable{false};
constexpr std::size_t sPageBytes = 4096;

Slot* MakeSlot() noexcept
{
    void* const page =
        ::mmap(nullptr, sPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return nullptr;
    if (::madvise(page, sPageBytes, MADV_WIPEONFORK) != 0) {
        ::munmap(page, sPageBytes);
        sUnavailable.store(true, std::memory_order_relaxed);
        return nullptr;
    }
    Slot* const slot = new (page) Slot(0);
    Slot* winner = nullptr;
    // Release and acquire below: who sees the pointer sees the constructed slot.
    if (sSlot.compare_exchange_strong(winner, slot, std::memory_order_acq_rel))
        return slot;
    ::munmap(page, sPageBytes);
    return winner;
}

}  // namespace

unsigned long CachedProcessId() noexcept
{
    Slot* slot = sSlot.load(std::memory_order_acquire);
    if (slot == nullptr && !sUnavailable.load(std::memory_order_relaxed))
        slot = MakeSlot();
    if (slot != nullptr)
        if (const unsigned long known = slot->load(std::memory_order_relaxed))
            return known;
    const auto processId = static_cast<unsigned long>(::getpid());
    if (slot != nullptr)
        slot->store(processId, std::memory_order_relaxed);
    return processId;
}

}  // namespace ky::impl

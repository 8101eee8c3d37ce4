#include "frame/SignalStack.h"

#include <array>
#include <atomic>
#include <cstddef>

#include <signal.h>
#include <sys/mman.h>

namespace ky::impl {
namespace {

// Below the stack lies a page that faults, so that a report that needs more than this ends the
// process instead of writing over somebody's data.
constexpr std::size_t sGuardBytes = 4096;
// The frame of a signal alone has 11 KiB on processors with wide registers; the report formats
// text, and its pages exist only once they are used.
constexpr std::size_t sStackBytes = 128UL * 1024;

char* StackOf(void* mapping)
{
    return static_cast<char*>(mapping) + sGuardBytes;
}

// Mapping and unmapping would be a large part of what a thread's whole start and end costs, so
// stacks of ended threads wait here for others. Empty places are null.
constinit std::array<std::atomic<void*>, 8> sIdleMappings = {};

void* MapStack() noexcept
{
    void* const mapping = ::mmap(nullptr, sGuardBytes + sStackBytes, PROT_NONE,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    if (::mprotect(StackOf(mapping), sStackBytes, PROT_READ | PROT_WRITE) == 0)
        return mapping;
    ::munmap(mapping, sGuardBytes + sStackBytes);
    return nullptr;
}

void* TakeMapping() noexcept
{
    // Acquire here and release below: the new thread comes after all that the old one did there.
    for (std::atomic<void*>& place : sIdleMappings)
        if (place.load(std::memory_order_relaxed) != nullptr)
            if (void* const mapping = place.exchange(nullptr, std::memory_order_acquire))
                return mapping;
    return MapStack();
}

void GiveMappingBack(void* mapping) noexcept
{
    for (std::atomic<void*>& place : sIdleMappings) {
        void* empty = nullptr;
        if (place.compare_exchange_strong(empty, mapping, std::memory_order_release))
            return;
    }
    ::munmap(mapping, sGuardBytes + sStackBytes);
}

bool HasSignalStack() noexcept
{
    stack_t current = {};
    return ::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0;
}

/// The mapping that holds the stack, null when there is none.
void* MakeSignalStack() noexcept
{
    void* const mapping = TakeMapping();
    if (mapping == nullptr)
        return nullptr;
    stack_t stack = {};
    stack.ss_sp = StackOf(mapping);
    stack.ss_size = sStackBytes;
    if (::sigaltstack(&stack, nullptr) == 0)
        return mapping;
    GiveMappingBack(mapping);
    return nullptr;
}

constinit std::atomic<bool> sHasInitialStack{false};

}  // namespace

ScopedSignalStack::ScopedSignalStack() noexcept
    : mMapping(HasSignalStack() ? nullptr : MakeSignalStack())
{}

ScopedSignalStack::~ScopedSignalStack()
{
    if (mMapping == nullptr)
        return;
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    stack_t previous = {};
    // The thread may have replaced ours meanwhile, and keeps its own then.
    if (::sigaltstack(&none, &previous) == 0 && previous.ss_sp != StackOf(mMapping))
        ::sigaltstack(&previous, nullptr);
    GiveMappingBack(mMapping);
}

void MakeInitialSignalStack() noexcept
{
    if (HasSignalStack() || sHasInitialStack.exchange(true, std::memory_order_relaxed))
        return;
    if (MakeSignalStack() == nullptr)
        sHasInitialStack.store(false, std::memory_order_relaxed);
}

}  // namespace ky::impl

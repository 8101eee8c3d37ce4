#pragma once

#include <cstdint>

namespace ky::impl {

/// What the calling thread is in the middle of.
struct StackFacts {
    bool isInAllocator;  ///< in malloc(3), its kin or fork(2), whose locks it may hold
    bool reachesGuard;   ///< an exception can be unwound to the innermost guard
};

/// Walks up the stack, for use in a signal handler: allocates nothing and takes no lock. Unwinding
/// reads what the stack points at, so a destroyed stack may make it fault.
StackFacts LookAtStack() noexcept;

/// Whether the instruction at `address` can be unwound at all, which a jump to nowhere cannot.
bool IsUnwindable(std::uintptr_t address) noexcept;

}  // namespace ky::impl

#include "frame/StackWalk.h"

#include "frame/Guard.h"

#include <algorithm>
#include <array>
#include <bit>
#include <new>

#include <malloc.h>
#include <unistd.h>
#include <unwind.h>
#include <cstddef>
#include <cstdlib>

namespace ky::impl {
namespace {

template <typename Function>
std::uintptr_t AddressOf(Function* function) noexcept
{
    return reinterpret_cast<std::uintptr_t>(function);
}

/// A host's own allocator replaces these under the same names. fork(2) holds the allocator's locks,
/// and the log's, while it copies.
bool IsAllocator(std::uintptr_t function) noexcept
{
    using New = void*(std::size_t);
    using Delete = void(void*);
    const std::array<std::uintptr_t, 10> allocators = {AddressOf(&::fork),
                                                       AddressOf(&::malloc),
                                                       AddressOf(&::free),
                                                       AddressOf(&::calloc),
                                                       AddressOf(&::realloc),
                                                       AddressOf(&::memalign),
                                                       AddressOf(&::aligned_alloc),
                                                       AddressOf(&::posix_memalign),
                                                       AddressOf<New>(&::operator new),
                                                       AddressOf<Delete>(&::operator delete)};
    return std::find(allocators.begin(), allocators.end(), function) != allocators.end();
}

_Unwind_Reason_Code Visit(_Unwind_Context* frame, void* argument)
{
    auto& facts = *static_cast<StackFacts*>(argument);
    const std::uintptr_t function = _Unwind_GetRegionStart(frame);
    facts.isInAllocator = facts.isInAllocator || IsAllocator(function);
    facts.reachesGuard = function == GuardFunctionAddress();
    return facts.reachesGuard ? _URC_END_OF_STACK : _URC_NO_REASON;
}

}  // namespace

StackFacts LookAtStack() noexcept
{
    StackFacts facts = {false, false};
    _Unwind_Backtrace(Visit, &facts);
    return facts;
}

bool IsUnwindable(std::uintptr_t address) noexcept
{
    // The search is for the instruction before the one given, as for a return address.
    return _Unwind_FindEnclosingFunction(std::bit_cast<void*>(address + 1)) != nullptr;
}

}  // namespace ky::impl

#pragma once

#include <cstdint>

namespace ky::impl {

/// Whether the innermost guard of the calling thread would catch an exception thrown now: there is
/// one, no ban is in force, and no exception is on its way to it, which another one would turn into
/// std::terminate. Signal-safe.
bool HasReadyGuard() noexcept;

/// Where the code of the guard begins: a stack that is unwound to a guard has a frame of it.
std::uintptr_t GuardFunctionAddress() noexcept;

/// While it lives, a crash on the calling thread ends the process although a guard is active. For
/// threads that nobody can go on without, above all that of the log.
class ScopedCrashThrowBan {
public:
    ScopedCrashThrowBan() noexcept;
    ~ScopedCrashThrowBan();
    ScopedCrashThrowBan(const ScopedCrashThrowBan&) = delete;
    ScopedCrashThrowBan& operator=(const ScopedCrashThrowBan&) = delete;
};

}  // namespace ky::impl

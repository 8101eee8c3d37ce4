#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace ky::impl {

/// What follows the first line of a crash report: the frames of the thread as backtrace_symbols(3)
/// tells them, "Interrupted at 0x..." with the address of the instruction, and the modules that
/// are loaded, with which the addresses become functions and source lines later.
class CrashTrace {
public:
    explicit CrashTrace(std::uintptr_t interruptedAt) noexcept : mInterruptedAt(interruptedAt) {}

    /// Walks up the stack of the calling thread, which faults where the crash has destroyed it.
    /// Takes no lock and no memory.
    void walk() noexcept;

    /// All lines, each ended by a zero byte since a path may contain anything else.
    ///
    /// kept: allocates, and waits for the lock of the dynamic linker.
    std::string lines() const;

    enum class Names { With, Without };

    /// The same to standard error without memory, by any thread, as far as the walk has come.
    /// Without names the frames are mere addresses, and there is no lock to wait for either.
    void writeToStandardError(Names names) const noexcept;

private:
    template <typename Take>
    void listModules(Take take) const;

    const std::uintptr_t mInterruptedAt;
    std::array<void*, 64> mFrames;
    std::atomic<int> mCount{0};
};

}  // namespace ky::impl

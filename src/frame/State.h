#pragma once

#include <atomic>

namespace ky::impl {

/// What the whole library may ask about its own initialisation. Constant-initialised, so that it
/// can be read and written before any constructor of the process has run and after every
/// destructor. Written by the lifecycle only; relaxed, because start-up and shut-down happen while
/// no other thread uses the library.
class State {
public:
    /// 0 not initialised, 1 light, 2 full. Unlike `IsKySystemThreadSafe` it checks for no fork.
    static int Level() noexcept { return msLevel.load(std::memory_order_relaxed); }

    /// The process that performed the last full initialisation, 0 before the first one. Survives
    /// termination.
    static unsigned long FullInitProcessId() noexcept
    {
        return msFullInitProcessId.load(std::memory_order_relaxed);
    }

    static void SetLevel(int level) noexcept { msLevel.store(level, std::memory_order_relaxed); }
    static void SetFullInitProcessId(unsigned long processId) noexcept
    {
        msFullInitProcessId.store(processId, std::memory_order_relaxed);
    }

private:
    static std::atomic<int> msLevel;
    static std::atomic<unsigned long> msFullInitProcessId;
};

}  // namespace ky::impl

#include "frame/MainThread.h"

#include <atomic>
#include <cstdint>

#include <sys/types.h>
#include <unistd.h>

namespace ky::impl {
namespace {

// Process and thread in one word, so that nobody sees the one without the other; 0 for none.
constinit std::atomic<std::uint64_t> sMainThread{0};

std::uint64_t Word(pid_t process, pid_t thread) noexcept
{
    return static_cast<std::uint64_t>(process) << 32 | static_cast<std::uint64_t>(thread);
}

}  // namespace

void RecordMainThread() noexcept
{
    sMainThread.store(Word(::getpid(), ::gettid()), std::memory_order_relaxed);
}

void ForgetMainThread() noexcept
{
    sMainThread.store(0, std::memory_order_relaxed);
}

bool IsMainThread() noexcept
{
    const pid_t process = ::getpid();
    const pid_t thread = ::gettid();
    const std::uint64_t recorded = sMainThread.load(std::memory_order_relaxed);
    // A record of another process came through a fork, whose child has one thread, its first.
    if (recorded >> 32 != static_cast<std::uint64_t>(process))
        return process == thread;
    return recorded == Word(process, thread);
}

}  // namespace ky::impl

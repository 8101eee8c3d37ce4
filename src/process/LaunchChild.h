#pragma once

#include <cstdint>

#include <sys/types.h>

namespace ky::impl {

/// All that a child needs to become another program, prepared by its parent, whose memory it
/// shares, and what it tells back. Signal sets are the kernel's: bit n - 1 stands for signal n.
struct LaunchPlan {
    const char* const* candidates;  // paths to try, up to a null
    const char* const* arguments;
    const char** shellArguments;  // "/bin/sh", a place for the path, the arguments after the first
    const char* const* environment;
    const char* directory;  // null inherits
    int niceValue;
    std::uint64_t signalMask;
    std::uint64_t signalsToIgnore;
    std::uint64_t signalsToDefault;  // beside those with a handler
    void* stackTop;
    void* grandchildStackTop;  // null makes an attached child
    std::int64_t beginNs;      // CLOCK_MONOTONIC

    std::int32_t grandchildInMemory;  // 0 when it has left this memory
    bool isDirectoryMissing;
    bool hasExecFailed;
    std::int64_t execFailedAfterNs;  // without what it waited for a processor
};

/// Makes a child that shares this process's memory while the calling thread waits for it to become
/// the program or to end, and so for the child of an intermediate one. All signals have to be
/// blocked. The number of the child, of the intermediate one for a detached start, or a negative
/// `errno` value; `errno` stays as it is.
pid_t CloneChild(LaunchPlan& plan) noexcept;

}  // namespace ky::impl

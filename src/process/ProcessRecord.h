#pragma once

#include "ky/kyProcess.h"

#include "fs/ScopedHandles.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace ky {
namespace impl {
struct LaunchOutcome;
}

struct kyProcess::Record {
    enum Flag : std::uint8_t {
        Crashed = 1,
        Killed = 2,
        Started = 4,
        Detached = 8,
        CurrentProcess = 16,
        StartedHere = 32,
        ParentProcess = 64,
        MergeEnvironment = 128,
    };

    bool has(Flag flag) const { return (flags & flag) != 0; }
    void set(Flag flag, bool isSet)
    {
        flags = static_cast<std::uint8_t>(isSet ? flags | flag : flags & ~flag);
    }
    bool isRunning() const { return state == Running; }

    /// Asks the system for what it can tell of a running child or parent.
    void refresh();
    /// Collects a running child when it has ended; `options` are those of waitid(2).
    void collect(int options);
    /// Forgets an earlier run.
    void restart(ProcessState newState);
    /// False, without a child, when the system refuses one.
    bool launch(bool resolveProgram, int niceValue, bool isDetached, bool& isDirectoryMissing);
    /// Look at a child just started for as long as it takes to tell whether it has failed.
    void followAttached(const impl::LaunchOutcome& outcome);
    void followDetached(pid_t intermediate);
    /// Passes `time`, or less when a child ends meanwhile.
    void waitForEnd(std::chrono::microseconds time) const;

    std::vector<std::string> arguments;
    std::string program;
    std::vector<std::string> environment;
    std::string workingDirectory;
    ProcessState state = NotStarted;
    std::int32_t pid = 0;
    std::int32_t exitCode = 0;
    std::uint8_t flags = 0;
    impl::ScopedFd processFd;  // of a running child, where the kernel has one
};

}  // namespace ky

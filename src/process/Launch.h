#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace ky::impl {

/// A program to start; texts are in the local 8-bit set.
struct LaunchRequest {
    std::string program;                 ///< "" is missing
    std::vector<std::string> arguments;  ///< without the program
    std::vector<std::string> environment;
    const std::string* directory;  ///< null inherits, "" is missing
    int niceValue;
    bool isDetached;
};

struct LaunchOutcome {
    pid_t pid = -1;  ///< of the intermediate child for a detached start, -1 when there is none
    std::int64_t beginNs = 0;  ///< CLOCK_MONOTONIC
    bool isDirectoryMissing = false;
    bool hasExecFailed = false;  ///< the child ends, or has ended, by SIGUSR1
    std::int64_t execFailedAfterNs = 0;
};

/// Returns when the child is the program, or is ending. Pass the descriptors that shall be closed
/// in the program with close-on-exec. Any thread.
LaunchOutcome Launch(const LaunchRequest& request);

}  // namespace ky::impl

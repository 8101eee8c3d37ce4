#pragma once

#include "ProcessTree.h"
#include "Requests.h"

#include "ky/kyProcess.h"

#include <string>
#include <vector>

namespace ky::tool {

/// What a command is and may. Texts are UTF-8.
struct Supervision {
    std::string title;                 ///< the command, for people
    std::vector<std::string> command;  ///< not empty
    std::string folder;                ///< empty: the current one
    std::vector<std::string> environment;
    kyProcess::ProcessPriority priority = kyProcess::Inherit;
    unsigned long timeoutMs = 0;         ///< 0: no limit
    unsigned long memoryLimitBytes = 0;  ///< 0: no limit
    unsigned long graceMs = 0;           ///< from asking to end to killing
};

/// Runs one command to its end and keeps it within its limits, itself and all that it starts. Tells
/// the log what happens, and standard error what is not the command's own doing.
class Supervisor {
public:
    /// Both are borrowed.
    Supervisor(const Supervision& supervision, const Requests& requests);

    /// The exit code for this process.
    int run();

private:
    enum class Phase { Running, Ending, Killing, Leaving };

    bool start();
    void follow();
    void look();
    void checkLimits();
    void checkMemory();
    void beginToEnd(const std::string& why);
    void kill();
    ProcessTree::Reach signal(int number);
    unsigned long elapsedMs() const;
    unsigned int msToNextLook() const;
    int exitCode() const;
    void logEnd() const;

    const Supervision& mSupervision;
    const Requests& mRequests;
    const ProcessTree mTree;
    kyProcess mProcess;
    Phase mPhase = Phase::Running;
    bool mIsTimedOut = false;
    bool mIsAskedAgain = false;
    int mEmptySamples = 0;  // in a row
    unsigned long mStartMs = 0;
    unsigned long mKillAtMs = 0;  // since the start
    unsigned long mLargestBytes = 0;
};

}  // namespace ky::tool

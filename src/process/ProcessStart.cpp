#include "ky/kyProcess.h"

#include "ky/kyDirUtils.h"
#include "ky/kyLog.h"

#include "frame/CancelBan.h"
#include "process/Environment.h"
#include "process/Launch.h"
#include "process/ProcessRecord.h"
#include "text/LocalPath.h"

#include <algorithm>
#include <new>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

namespace ky {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

/// How long a start looks at its child.
constexpr std::chrono::milliseconds sGracePeriod(10);

int NiceValue(kyProcess::ProcessPriority priority)
{
    switch (priority) {
        case kyProcess::Low:
            return 1;
        case kyProcess::Normal:
            return 0;
        case kyProcess::High:
            return -1;
        default:
            // -1 is a value as others are, and no process 0 is no error.
            return ::getpriority(PRIO_PROCESS, 0);
    }
}

std::string ProgramPath(const std::string& program, bool isResolved, const std::string& directory)
{
    if (!isResolved)
        return program;
    const std::string path = kyDirUtils::GetAbsolutePathUtf8(program, directory);
    return kyDirUtils::FileExistsUtf8(path) ? path : program;
}

/// Waits for the end of a child without collecting it.
void WaitUntilEnded(pid_t child)
{
    siginfo_t info = {};
    impl::RetryOnEintr(
        [&] { return ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT); });
}

/// How much of the grace period is left.
microseconds Remaining(std::int64_t beginNs)
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const nanoseconds elapsed =
        std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec) - nanoseconds(beginNs);
    return std::max(std::chrono::ceil<microseconds>(sGracePeriod - elapsed), microseconds(0));
}

}  // namespace

bool kyProcess::startProcess(const std::string& program, const std::vector<std::string>& arguments,
                             bool resolveProgram, ProcessPriority priority)
{
    return start(program, arguments, resolveProgram, priority, false);
}

bool kyProcess::start(const std::string& program, const std::vector<std::string>& arguments,
                      bool resolveProgram, ProcessPriority priority, bool isDetached)
{
    if (getState() == Running)
        return false;
    // A thread that was cancelled between the birth of a child and its record would lose it.
    const impl::CancelBan ban;
    mRecord->restart(Finished);
    bool isDirectoryMissing = false;
    try {
        mRecord->program = program;
        mRecord->arguments = arguments;
        if (!mRecord->launch(resolveProgram, NiceValue(priority), isDetached, isDirectoryMissing))
            return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (isDirectoryMissing)
        kyLogObject(kyLog::Warning)
            << "Beware, could not change current working directory in startProcess "
            << mRecord->workingDirectory;
    return true;
}

bool kyProcess::Record::launch(bool resolveProgram, int niceValue, bool isDetached,
                               bool& isDirectoryMissing)
{
    const bool hasDirectory = !workingDirectory.empty();
    const std::string directory =
        hasDirectory ? kyDirUtils::GetAbsolutePathUtf8(workingDirectory) : "";
    const std::string localDirectory = impl::ToLocalPath(directory);

    impl::LaunchRequest request;
    request.program = impl::ToLocalPath(ProgramPath(program, resolveProgram, directory));
    for (const std::string& argument : arguments)
        request.arguments.push_back(impl::ToLocalText(argument));
    request.environment = impl::ChildEnvironment(environment, has(MergeEnvironment));
    request.directory = hasDirectory ? &localDirectory : nullptr;
    request.niceValue = niceValue;
    request.isDetached = isDetached;
    const impl::LaunchOutcome outcome = impl::Launch(request);
    if (outcome.pid < 0)
        return false;
    isDirectoryMissing = outcome.isDirectoryMissing;
    if (isDetached)
        followDetached(outcome.pid);
    else
        followAttached(outcome);
    return true;
}

void kyProcess::Record::followAttached(const impl::LaunchOutcome& outcome)
{
    set(StartedHere, true);
    set(Detached, false);
    state = Running;
    pid = outcome.pid;
    // Close-on-exec by itself. Without one, or when the child is gone already, time has to pass.
    processFd = impl::ScopedFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (outcome.hasExecFailed)
        WaitUntilEnded(pid);
    else
        waitForEnd(Remaining(outcome.beginNs));
    refresh();
    // kept: a program that ends itself by SIGUSR1 in that time has failed to start, and one whose
    // exec failed after that time has crashed.
    const bool isLate =
        outcome.hasExecFailed && nanoseconds(outcome.execFailedAfterNs) > sGracePeriod;
    const bool hasFailed = state == Finished && has(Killed) && exitCode == SIGUSR1 && !isLate;
    set(Started, !hasFailed);
    if (hasFailed) {
        set(Crashed, false);
        exitCode = 0;
    }
}

void kyProcess::Record::followDetached(pid_t intermediate)
{
    set(Detached, true);
    pid = 0;
    siginfo_t info = {};
    const int result = impl::RetryOnEintr(
        [&] { return ::waitid(P_PID, static_cast<id_t>(intermediate), &info, WEXITED); });
    const bool hasFailed = result != 0 || (info.si_code == CLD_KILLED && info.si_status == SIGUSR1);
    state = hasFailed ? Finished : Running;
    set(Started, !hasFailed);
}

int kyProcess::ExecUtf8(const std::string& program, const std::vector<std::string>& arguments,
                        const std::string& workingDirectory, bool resolveProgram,
                        unsigned int timeoutMs, std::string* error)
{
    const auto result = [&](const char* text, int code) {
        if (error != nullptr)
            *error = text;
        return code;
    };
    kyProcess process;
    if (!workingDirectory.empty())
        process.setWorkingDirectory(workingDirectory);
    if (!process.startProcess(program, arguments, resolveProgram, Inherit))
        return result("Fail to start process", -1);
    if (!process.waitForFinished(timeoutMs)) {
        // One that may not be killed would be waited for without limit.
        if (process.sendSignal(SIGKILL))
            process.mRecord->collect(0);
        process.clearProcess();
        return result("timeout", -2);
    }
    const int exitCode = process.exitCode();
    if (process.hasCrashed() && exitCode == 0)
        return result("process has crashed", -3);
    // kept: a missing program has exit code 0.
    return result(exitCode != 0 ? "process return an error" : "", exitCode);
}

bool kyProcess::StartDetachedUtf8(const std::string& program,
                                  const std::vector<std::string>& arguments,
                                  const std::string& workingDirectory, bool resolveProgram)
{
    kyProcess process;
    process.setWorkingDirectory(workingDirectory);
    return process.start(program, arguments, resolveProgram, Inherit, true) &&
           !process.hasFailedToStart();
}

bool kyProcess::StartDetachedUtf8(const std::string& commandLine)
{
    std::string program;
    std::vector<std::string> arguments;
    if (!SplitCommandLine(commandLine, program, arguments))
        return false;
    // kept: before any search in PATH, so that a bare name is a file of the current folder.
    const std::string path = kyDirUtils::GetAbsolutePathUtf8(program);
    std::string folder;
    std::string fileName;
    kyDirUtils::SplitFolderFilename(path, folder, fileName);
    return StartDetachedUtf8(path, arguments, folder, false);
}

}  // namespace ky

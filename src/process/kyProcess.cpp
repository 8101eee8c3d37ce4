#include "ky/kyProcess.h"

#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"

#include "process/Environment.h"
#include "process/ProcessRecord.h"
#include "text/LocalPath.h"

#include <algorithm>
#include <limits>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace ky {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr unsigned int sNoTimeLimit = std::numeric_limits<unsigned int>::max();
constexpr unsigned int sLongestNapMs = 100;
constexpr microseconds sShortestNap(100);

/// Since `begin`; the largest value when it is not known, or larger.
unsigned int ElapsedMs(unsigned long begin)
{
    constexpr auto unavailable =
        static_cast<unsigned long>(std::numeric_limits<std::int64_t>::min());
    const unsigned long now = kySystemUtils::GetTimeBaseMs();
    if (now == 0 || now == unavailable)
        return sNoTimeLimit;
    return static_cast<unsigned int>(std::min<unsigned long>(now - begin, sNoTimeLimit));
}

/// False when the system cannot wait for the descriptor.
bool WaitUntilReadable(int fd, microseconds time)
{
    const auto end = steady_clock::now() + time;
    while (true) {
        const nanoseconds left = std::max<nanoseconds>(end - steady_clock::now(), nanoseconds(0));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec timeout = {seconds.count(), (left - seconds).count()};
        pollfd process = {fd, POLLIN, 0};
        const int result = ::ppoll(&process, 1, &timeout, nullptr);
        // A host that closes all descriptors has closed this one.
        if (result != -1 || errno != EINTR)
            return result != -1 && (process.revents & POLLNVAL) == 0;
    }
}

}  // namespace

void kyProcess::Record::refresh()
{
    if (!isRunning() || has(Detached) || has(CurrentProcess))
        return;
    if (!has(ParentProcess))
        collect(WNOHANG);
    else if (::getppid() != pid)
        state = Finished;
}

void kyProcess::Record::collect(int options)
{
    siginfo_t info = {};
    const int result = impl::RetryOnEintr(
        [&] { return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | options); });
    if (result == 0 && info.si_pid == 0)
        return;
    // kept: a child that somebody else has collected has crashed, with exit code 0.
    state = Finished;
    exitCode = info.si_status;
    set(Crashed, info.si_code != CLD_EXITED);
    set(Killed, info.si_code == CLD_KILLED);
    processFd.reset();
}

void kyProcess::Record::restart(ProcessState newState)
{
    // kept: what has described the parent goes on comparing with that, whatever it starts.
    flags &= Detached | StartedHere | ParentProcess | MergeEnvironment;
    state = newState;
    exitCode = 0;
    processFd.reset();
}

void kyProcess::Record::waitForEnd(microseconds time) const
{
    if (!processFd || !WaitUntilReadable(processFd.get(), time))
        kyThread::usleep(static_cast<unsigned long>(time.count()));
}

kyProcess::kyProcess() : mRecord(std::make_unique<Record>()) {}

kyProcess::~kyProcess() = default;

bool kyProcess::setWorkingDirectory(const std::string& dir)
{
    if (getState() == Running)
        return false;
    mRecord->workingDirectory = dir;
    return true;
}

const std::string& kyProcess::getWorkingDirectoryUtf8() const
{
    return mRecord->workingDirectory;
}

const std::string& kyProcess::getProgramUtf8() const
{
    return mRecord->program;
}

const std::vector<std::string>& kyProcess::getArgumentsUtf8() const
{
    return mRecord->arguments;
}

std::int32_t kyProcess::getPid() const
{
    return mRecord->pid;
}

bool kyProcess::setProcessEnvironmentUtf8(const std::vector<std::string>& env, bool merge)
{
    if (getState() == Running)
        return false;
    mRecord->environment = env;
    mRecord->set(Record::MergeEnvironment, merge);
    return true;
}

void kyProcess::getProcessEnvironmentUtf8(std::vector<std::string>& env) const
{
    env = mRecord->environment;
    if (!mRecord->has(Record::CurrentProcess))
        return;
    env.clear();
    for (const std::string& entry : impl::OwnEnvironment())
        if (std::string entryUtf8 = impl::ToUtf8Path(entry); !entryUtf8.empty())
            env.push_back(std::move(entryUtf8));
}

kyProcess::ProcessState kyProcess::getState() const
{
    mRecord->refresh();
    return mRecord->state;
}

bool kyProcess::hasCrashed() const
{
    mRecord->refresh();
    return mRecord->has(Record::Crashed);
}

bool kyProcess::hasFailedToStart() const
{
    mRecord->refresh();
    return !mRecord->has(Record::Started);
}

int kyProcess::exitCode() const
{
    mRecord->refresh();
    return mRecord->exitCode;
}

bool kyProcess::waitForFinished(unsigned int timeoutMs)
{
    if (mRecord->has(Record::CurrentProcess))
        return false;
    const unsigned long begin = kySystemUtils::GetTimeBaseMs();
    while (getState() == Running) {
        const unsigned int elapsedMs = ElapsedMs(begin);
        // kept: strictly more, so that no time at all lasts until the clock has passed one step.
        if (elapsedMs > timeoutMs)
            return false;
        const std::chrono::milliseconds nap(std::min(timeoutMs - elapsedMs, sLongestNapMs));
        mRecord->waitForEnd(std::max<microseconds>(nap, sShortestNap));
    }
    return true;
}

bool kyProcess::resetState()
{
    if (getState() == Running)
        return false;
    mRecord->restart(NotStarted);
    return true;
}

void kyProcess::clearProcess()
{
    mRecord->arguments.clear();
    mRecord->environment.clear();
    mRecord->program.clear();
}

void kyProcess::terminateProcess()
{
    sendSignal(SIGTERM);
}

void kyProcess::killProcess()
{
    sendSignal(SIGKILL);
}

bool kyProcess::sendSignal(int signal)
{
    if (getState() != Running || mRecord->pid == 0)
        return false;
    // By descriptor it cannot reach a stranger, even when somebody collects the child just now.
    if (mRecord->processFd &&
        (::syscall(SYS_pidfd_send_signal, mRecord->processFd.get(), signal, nullptr, 0) == 0 ||
         errno == ESRCH))
        return true;
    return ::kill(mRecord->pid, signal) == 0;
}

void kyProcess::setWorkingSetMaxSize(unsigned long /*bytes*/) {}

std::string kyProcess::ProcessPriorityToString(ProcessPriority priority)
{
    switch (priority) {
        case Low:
            return "Low";
        case Normal:
            return "Normal";
        case High:
            return "High";
        case Inherit:
            return "Inherit";
    }
    return "Unknown";
}

}  // namespace ky

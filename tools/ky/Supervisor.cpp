#include "Supervisor.h"

#include "Commands.h"
#include "StandardStreams.h"

#include "ky/kyLog.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"

#include <algorithm>
#include <utility>

#include <signal.h>
#include <cstring>

namespace ky::tool {
namespace {

constexpr int sNotStarted = 127;
constexpr int sTimedOut = 124;
constexpr int sSignalBase = 128;
constexpr unsigned long sSamplePeriodMs = 100;
constexpr unsigned long sNapMs = 10;
constexpr const char* sSubType = "run";

std::string Duration(unsigned long ms)
{
    return kyStringUtils::humanizeDuration<long>(static_cast<long>(ms), 0, false);
}

std::string Size(unsigned long bytes)
{
    return kyStringUtils::humanizeNumberGeneric(bytes, 3, 1, true, true, false) + "B";
}

/// For the log and for whoever sees standard error.
void Warn(const std::string& text)
{
    kyLogObject(kyLog::Warning, sSubType) << text;
    PrintUnlessStuck(text);
}

}  // namespace

Supervisor::Supervisor(const Supervision& supervision, const Requests& requests)
    : mSupervision(supervision), mRequests(requests)
{}

int Supervisor::run()
{
    if (!start())
        return sNotStarted;
    follow();
    logEnd();
    return exitCode();
}

bool Supervisor::start()
{
    const std::vector<std::string>& words = mSupervision.command;
    mProcess.setWorkingDirectory(mSupervision.folder);
    mProcess.setProcessEnvironmentUtf8(mSupervision.environment, true);
    mStartMs = kySystemUtils::GetTimeBaseMs();
    const bool isStarted = mProcess.startProcess(words[0], {words.begin() + 1, words.end()}, false,
                                                 mSupervision.priority) &&
                           !mProcess.hasFailedToStart();
    if (!isStarted) {
        Warn("Cannot start " + mSupervision.title);
        return false;
    }
    kyLogObject(kyLog::Info, sSubType)
        << "Started " << mSupervision.title << " as process " << mProcess.getPid();
    return true;
}

void Supervisor::follow()
{
    for (;;) {
        look();
        const bool hasEnded = mProcess.waitForFinished(msToNextLook());
        // Its number may be that of a process which it has left to us by then.
        ProcessTree::Collect(hasEnded ? 0 : mProcess.getPid());
        // What a command leaves behind on its own account is its business.
        if (mPhase == Phase::Leaving ||
            (hasEnded && (mPhase == Phase::Running || mTree.list().empty())))
            return;
        if (!hasEnded)
            continue;
        // One that was on its way from fork to exec when it was asked may have lost the signal.
        if (mPhase == Phase::Ending && !std::exchange(mIsAskedAgain, true))
            signal(SIGTERM);
        kyThread::msleep(sNapMs);
    }
}

void Supervisor::look()
{
    if (mProcess.getState() == kyProcess::Running)
        Requests::PassOn(mProcess.getPid());
    if (mPhase != Phase::Killing)
        checkMemory();
    if (mPhase == Phase::Running)
        checkLimits();
    if (mPhase == Phase::Ending && elapsedMs() >= mKillAtMs) {
        Warn("Not ended " + Duration(mSupervision.graceMs) + " later, killing it");
        mPhase = Phase::Killing;
    }
    // Again and again, for what was started meanwhile.
    if (mPhase == Phase::Killing)
        kill();
}

void Supervisor::kill()
{
    const ProcessTree::Reach reach = signal(SIGKILL);
    if (reach.reached != 0 || reach.refused == 0)
        return;
    // It would be waited for without limit.
    Warn("What is left may not be killed, leaving it");
    mPhase = Phase::Leaving;
}

void Supervisor::checkMemory()
{
    const unsigned long bytes = mTree.residentBytes();
    mLargestBytes = std::max(mLargestBytes, bytes);
    mEmptySamples = bytes == 0 && mPhase == Phase::Running ? mEmptySamples + 1 : 0;
    if (mSupervision.memoryLimitBytes == 0)
        return;
    // One that is about to end has none either.
    constexpr int suspicious = 10;
    if (mEmptySamples == suspicious)
        Warn("The resident size cannot be read, the memory limit is not kept");
    if (bytes <= mSupervision.memoryLimitBytes)
        return;
    Warn("A resident size of " + Size(bytes) + " is above the limit of " +
         Size(mSupervision.memoryLimitBytes) + ", killing it");
    mPhase = Phase::Killing;
}

void Supervisor::checkLimits()
{
    const std::string request = mRequests.stopReason();
    if (!request.empty()) {
        beginToEnd(request);
    } else if (mSupervision.timeoutMs != 0 && elapsedMs() >= mSupervision.timeoutMs) {
        mIsTimedOut = true;
        beginToEnd("The time limit of " + Duration(mSupervision.timeoutMs) + " is over");
    }
}

void Supervisor::beginToEnd(const std::string& why)
{
    Warn(why + ", ending it");
    mPhase = Phase::Ending;
    mKillAtMs = elapsedMs() + mSupervision.graceMs;
    signal(SIGTERM);
    // One that is stopped would not hear of it.
    signal(SIGCONT);
}

ProcessTree::Reach Supervisor::signal(int number)
{
    ProcessTree::Reach reach = mTree.signal(number);
    // The command is reached without proc(5) too, which no descriptor may be left to read.
    if (reach.reached + reach.refused == 0 && mProcess.getState() == kyProcess::Running)
        reach.send(mProcess.getPid(), number);
    return reach;
}

unsigned long Supervisor::elapsedMs() const
{
    return kySystemUtils::GetTimeBaseMs() - mStartMs;
}

/// A wait takes a millisecond more than it is told.
unsigned int Supervisor::msToNextLook() const
{
    unsigned long next = elapsedMs() + sSamplePeriodMs;
    if (mPhase == Phase::Running && mSupervision.timeoutMs != 0)
        next = std::min(next, mSupervision.timeoutMs);
    if (mPhase == Phase::Ending)
        next = std::min(next, mKillAtMs);
    const unsigned long now = elapsedMs();
    return next > now + 1 ? static_cast<unsigned int>(next - now - 1) : 0;
}

int Supervisor::exitCode() const
{
    if (mIsTimedOut)
        return sTimedOut;
    if (mProcess.getState() == kyProcess::Running)
        return sFailure;
    const int code = mProcess.exitCode();
    if (!mProcess.hasCrashed())
        return code;
    return code != 0 ? sSignalBase + code : sFailure;
}

void Supervisor::logEnd() const
{
    const int code = mProcess.exitCode();
    std::string how = "ended with exit code " + std::to_string(code);
    if (mProcess.getState() == kyProcess::Running) {
        how = "was left running";
    } else if (mProcess.hasCrashed()) {
        const char* const name = ::sigabbrev_np(code);
        how = code == 0 ? "ended in an unknown way"
                        : "ended by signal " + std::to_string(code) +
                              (name != nullptr ? std::string(" (SIG") + name + ")" : "");
    }
    const std::string size = mLargestBytes == 0 ? ", before the first sample of its resident size"
                                                : ", largest resident size " + Size(mLargestBytes) +
                                                      " (sampled every " +
                                                      std::to_string(sSamplePeriodMs) + " ms)";
    const bool isGood = code == 0 && !mProcess.hasCrashed() && mPhase == Phase::Running;
    kyLogObject(isGood ? kyLog::Info : kyLog::Warning, sSubType)
        << "Process " << mProcess.getPid() << ' ' << how << " after " << Duration(elapsedMs())
        << size;
}

}  // namespace ky::tool

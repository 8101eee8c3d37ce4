#include "Supervisor.h"

#include "Commands.h"

#include "ky/kyLog.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"

#include <algorithm>
#include <iostream>
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
    std::cerr << "ky: " + text + "\n";
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
        ProcessTree::Collect(mProcess.getPid());
        // What a command leaves behind on its own account is its business.
        if (hasEnded && (mPhase == Phase::Running || mTree.list().empty()))
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
        signal(SIGKILL);
}

void Supervisor::checkMemory()
{
    const unsigned long bytes = mTree.residentBytes();
    mLargestBytes = std::max(mLargestBytes, bytes);
    if (mSupervision.memoryLimitBytes == 0 || bytes <= mSupervision.memoryLimitBytes)
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

void Supervisor::signal(int number)
{
    // The command is reached without proc(5) too, which no descriptor may be left to read.
    if (mTree.list().empty() && mProcess.getState() == kyProcess::Running)
        ::kill(mProcess.getPid(), number);
    mTree.signal(number);
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
    const int code = mProcess.exitCode();
    if (!mProcess.hasCrashed())
        return code;
    return code != 0 ? sSignalBase + code : sFailure;
}

void Supervisor::logEnd() const
{
    const int code = mProcess.exitCode();
    std::string how = "with exit code " + std::to_string(code);
    if (mProcess.hasCrashed()) {
        const char* const name = ::sigabbrev_np(code);
        how = code == 0 ? "in an unknown way"
                        : "by signal " + std::to_string(code) +
                              (name != nullptr ? std::string(" (SIG") + name + ")" : "");
    }
    const std::string size = mLargestBytes == 0 ? ", before the first sample of its resident size"
                                                : ", largest resident size " + Size(mLargestBytes) +
                                                      " (sampled every " +
                                                      std::to_string(sSamplePeriodMs) + " ms)";
    const bool isGood = code == 0 && !mProcess.hasCrashed() && mPhase == Phase::Running;
    kyLogObject(isGood ? kyLog::Info : kyLog::Warning, sSubType)
        << "Process " << mProcess.getPid() << " ended " << how << " after " << Duration(elapsedMs())
        << size;
}

}  // namespace ky::tool

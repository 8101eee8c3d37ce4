#include "ky/kyThreadPeriodicalUpdater.h"

#include <algorithm>
#include <climits>

namespace ky {
namespace {
constexpr unsigned long sNoTimeLimit = ~0UL;
}  // namespace

// kept: the product wraps in 32 bits.
kyThreadPeriodicalUpdater::kyThreadPeriodicalUpdater(unsigned int periodSeconds)
    : mPeriodMs(std::max(periodSeconds, 1U) * 1000U)
{
    startLibraryThread("kyUpdater");
}

kyThreadPeriodicalUpdater::~kyThreadPeriodicalUpdater()
{
    // In a forked child nobody would ever release the mutex that the thread held.
    if (isInherited())
        return;
    {
        kyMutexLocker lock(mMutex, true);
        mShouldStop = true;
        mWakeUp.wakeAll();
    }
    waitThread(INT_MAX);
}

void kyThreadPeriodicalUpdater::addCallback(void (*function)(void*), void* argument)
{
    if (isInherited())
        return;
    kyMutexLocker lock(mMutex, true);
    mCallbacks.push_back({function, argument});
    mHasNews = true;
    mWakeUp.wakeAll();
}

void kyThreadPeriodicalUpdater::removeCallback(void (*function)(void*), void* argument)
{
    if (isInherited())
        return;
    kyMutexLocker lock(mMutex, true);
    const auto found =
        std::find_if(mCallbacks.begin(), mCallbacks.end(), [&](const CallbackInfo& info) {
            return info.function == function && info.argument == argument;
        });
    if (found == mCallbacks.end())
        return;
    // In the middle of a round this is a callback, so the round still needs the element.
    if (mIsInRound)
        found->function = nullptr;
    else
        mCallbacks.erase(found);
}

int kyThreadPeriodicalUpdater::run()
{
    kyMutexLocker lock(mMutex, true);
    do {
        waitForRound();
        callAll();
        // kept: the stop too is followed by a round, which is the last.
    } while (!mShouldStop);
    return 0;
}

void kyThreadPeriodicalUpdater::waitForRound()
{
    bool isTimeOver = false;
    while (!isTimeOver && !mHasNews && !mShouldStop)
        isTimeOver = !mWakeUp.wait(&mMutex, mCallbacks.empty() ? sNoTimeLimit : mPeriodMs);
}

void kyThreadPeriodicalUpdater::callAll()
{
    mIsInRound = true;
    // Reaches what a callback adds to the list meanwhile.
    for (const CallbackInfo& info : mCallbacks) {
        if (info.function != nullptr)
            info.function(info.argument);
    }
    mIsInRound = false;
    mHasNews = false;
    mCallbacks.remove_if([](const CallbackInfo& info) { return info.function == nullptr; });
}

}  // namespace ky

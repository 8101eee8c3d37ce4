#pragma once

#include "ky/kyExport.h"
#include "ky/kyMutex.h"
#include "ky/kyThread.h"
#include "ky/kyWaitCondition.h"

#include <list>

namespace ky {

/// Calls functions periodically, one after the other, on a thread of its own.
///
/// Any member may be called from any thread and waits for the end of a round of calls that is on
/// its way. A function may add and remove functions, itself too, but must not wait for a thread
/// that does, nor delete the updater. One that throws is reported and ends the calling of all.
///
/// In a forked child nothing is called any more: adding and removing do nothing there.
class KY_API kyThreadPeriodicalUpdater final : public kyThread {
public:
    /// Starts the thread. 0 means one second. The period is kept in milliseconds modulo 2^32.
    /// Throws `std::system_error` when the system refuses a thread.
    explicit kyThreadPeriodicalUpdater(unsigned int periodSeconds);

    /// Has every function called a last time and waits for the end of that.
    ~kyThreadPeriodicalUpdater() override;

    /// Has every function called at once, in the order in which they were added, `function` as the
    /// last one. The same pair may be added several times. `argument` is passed on as it is.
    void addCallback(void (*function)(void*), void* argument);

    /// Removes the pair that was added first, if any. Once this returns it is not called, except
    /// that a function which removes itself goes on to its end.
    void removeCallback(void (*function)(void*), void* argument);

protected:
    /// The rounds.
    int run() override;

private:
    struct CallbackInfo {
        void (*function)(void*);  // null once it was removed in the middle of a round
        void* argument;
    };

    void waitForRound();
    void callAll();

    // All under mMutex, which the thread holds except while it waits.
    std::list<CallbackInfo> mCallbacks;
    kyMutex mMutex;
    kyWaitCondition mWakeUp;
    const unsigned int mPeriodMs;
    bool mShouldStop = false;
    bool mHasNews = false;
    bool mIsInRound = false;
};

}  // namespace ky

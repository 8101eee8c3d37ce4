#include "ky/kyCancelIfParentProcessDied.h"

#include "ky/kyLog.h"
#include "ky/kyMutex.h"
#include "ky/kyProcess.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"
#include "ky/kyWaitCondition.h"

#include <atomic>
#include <climits>

namespace ky {
namespace {

constexpr unsigned long sPeriodMs = 100;

/// Owned by the thread too: where the log writes on its caller's thread, a handler may destroy the
/// watcher under the hands of the thread that has just reported.
struct Watch {
    Watch() { kyProcess::GetParentProcess(parent); }

    bool waitForDeath()
    {
        kyMutexLocker lock(mutex);
        while (!stopRequested) {
            if (isParentGone())
                return true;
            stopCondition.wait(&mutex, sPeriodMs);
        }
        return false;
    }
    // `parent` stays empty where its files in proc(5) cannot be read: hidden from this user, no
    // descriptor left, or gone just now.
    bool isParentGone() const
    {
        return parent.getState() == kyProcess::Finished ||
               kySystemUtils::GetParentProcessID() != parentId;
    }
    void stop()
    {
        kyMutexLocker lock(mutex);
        stopRequested = true;
        stopCondition.wakeAll();
    }

    std::atomic<bool> parentDied{false};  // written under `mutex`, read by anyone
    const long parentId = kySystemUtils::GetParentProcessID();
    kyProcess parent;
    kyMutex mutex;
    kyWaitCondition stopCondition;
    bool stopRequested = false;  // under `mutex`
};

}  // namespace

class kyCancelIfParentProcessDiedImpl final : public kyThread {
public:
    ~kyCancelIfParentProcessDiedImpl() override
    {
        // In a forked child nobody would ever release the mutex that the thread held.
        if (isInherited())
            return;
        mWatch->stop();
        waitThread(INT_MAX);
    }

    void begin() { startLibraryThread("kyParentWatch"); }
    bool isParentDead() const { return mWatch->parentDied.load(std::memory_order_relaxed); }

protected:
    int run() override
    {
        const std::shared_ptr<Watch> watch = mWatch;
        if (!watch->waitForDeath())
            return 0;
        // Neither under the mutex nor flushed: a handler may destroy this object on the log's
        // thread, which then waits for this one.
        kyLogObject(kyLog::Info) << "Parent process died";
        kyMutexLocker lock(watch->mutex);
        watch->parentDied.store(true, std::memory_order_relaxed);
        watch->stopRequested = true;
        return 0;
    }

private:
    const std::shared_ptr<Watch> mWatch = std::make_shared<Watch>();
};

kyCancelIfParentProcessDied::kyCancelIfParentProcessDied(
    const kyCancelInterfaceReadOnly* externalCancel)
    : mWatcher(std::make_unique<kyCancelIfParentProcessDiedImpl>()), mExternalCancel(externalCancel)
{
    mWatcher->begin();
}

kyCancelIfParentProcessDied::~kyCancelIfParentProcessDied() = default;

bool kyCancelIfParentProcessDied::shouldCancel() const
{
    if (mWatcher->isParentDead())
        return true;
    return mExternalCancel != nullptr && mExternalCancel->shouldCancel();
}

}  // namespace ky

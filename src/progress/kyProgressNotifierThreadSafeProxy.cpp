#include "ky/kyMutex.h"
#include "ky/kyProgressNotifier.h"

namespace ky {

kyProgressNotifierThreadSafeProxy::kyProgressNotifierThreadSafeProxy(
    kyProgressNotifierInterface* target)
    : mTarget(target), mMutex(std::make_unique<kyMutex>())
{}

kyProgressNotifierThreadSafeProxy::~kyProgressNotifierThreadSafeProxy() = default;

bool kyProgressNotifierThreadSafeProxy::shouldCancel() const
{
    const kyMutexLocker lock(*mMutex);
    return mTarget->shouldCancel();
}

void kyProgressNotifierThreadSafeProxy::cancel()
{
    const kyMutexLocker lock(*mMutex);
    mTarget->cancel();
}

void kyProgressNotifierThreadSafeProxy::setInternalCancelFlag(bool flag)
{
    const kyMutexLocker lock(*mMutex);
    mTarget->setInternalCancelFlag(flag);
}

void kyProgressNotifierThreadSafeProxy::resetNotifier()
{
    const kyMutexLocker lock(*mMutex);
    mTarget->resetNotifier();
}

void kyProgressNotifierThreadSafeProxy::beginStepGroupWeights(const std::vector<double>& weights,
                                                              double firstStepMaxProgress,
                                                              kyProgressNotifierGroupCloser* closer)
{
    const kyMutexLocker lock(*mMutex);
    // The caller's closer must not hold the target, which it would use without the lock.
    kyProgressNotifierGroupCloser untilHandedOver;
    mTarget->beginStepGroupWeights(weights, firstStepMaxProgress,
                                   closer != nullptr ? &untilHandedOver : nullptr);
    untilHandedOver.forgiveNotifier(false);
    if (closer != nullptr)
        closer->setNotifier(this);
}

void kyProgressNotifierThreadSafeProxy::endStepGroup()
{
    const kyMutexLocker lock(*mMutex);
    mTarget->endStepGroup();
}

void kyProgressNotifierThreadSafeProxy::changeCurrentStep(double maxProgress,
                                                          unsigned long stepIndex)
{
    const kyMutexLocker lock(*mMutex);
    mTarget->changeCurrentStep(maxProgress, stepIndex);
}

void kyProgressNotifierThreadSafeProxy::setCurrentStepMaxProgress(double maxProgress)
{
    const kyMutexLocker lock(*mMutex);
    mTarget->setCurrentStepMaxProgress(maxProgress);
}

void kyProgressNotifierThreadSafeProxy::getCurrentStepProgress(double& progress,
                                                               double& maxProgress)
{
    const kyMutexLocker lock(*mMutex);
    mTarget->getCurrentStepProgress(progress, maxProgress);
}

void kyProgressNotifierThreadSafeProxy::setCurrentStepProgress(double progress)
{
    const kyMutexLocker lock(*mMutex);
    mTarget->setCurrentStepProgress(progress);
}

void kyProgressNotifierThreadSafeProxy::incrementCurrentStepProgress(double increment)
{
    const kyMutexLocker lock(*mMutex);
    mTarget->incrementCurrentStepProgress(increment);
}

float kyProgressNotifierThreadSafeProxy::getGlobalProgress() const
{
    const kyMutexLocker lock(*mMutex);
    return mTarget->getGlobalProgress();
}

}  // namespace ky

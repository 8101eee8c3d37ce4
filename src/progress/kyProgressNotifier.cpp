#include "ky/kyProgressNotifier.h"

#include "progress/CancelFlag.h"

#include <algorithm>

namespace ky {
namespace {

double PositiveOrOne(double maxProgress)
{
    return maxProgress > 0.0 ? maxProgress : 1.0;
}

bool ShouldCancel(const std::atomic<bool>& internalFlag, const bool* externalFlag,
                  const kyCancelInterfaceReadOnly* external)
{
    if (internalFlag.load(std::memory_order_relaxed) || impl::IsFlagSet(externalFlag))
        return true;
    return external != nullptr && external->shouldCancel();
}

}  // namespace

kyProgressNotifierInterface::~kyProgressNotifierInterface() = default;

kyProgressMonitorable::~kyProgressMonitorable() = default;

void kyProgressNotifierGroupCloser::setNotifier(kyProgressNotifierInterface* notifier)
{
    forgiveNotifier(true);
    mNotifier = notifier;
}

void kyProgressNotifierGroupCloser::forgiveNotifier(bool closeGroup)
{
    // Forgotten first, in case that a callback comes back here.
    kyProgressNotifierInterface* const notifier = mNotifier;
    mNotifier = nullptr;
    if (notifier != nullptr && closeGroup)
        notifier->endStepGroup();
}

kyProgressNotifierBase::kyProgressNotifierBase(const bool* externalCancelFlag,
                                               const kyCancelInterfaceReadOnly* externalCancel)
    : mExternalFlag(externalCancelFlag != nullptr ? externalCancelFlag : &mSpareFlag),
      mExternal(externalCancel)
{
    kyProgressNotifierBase::resetNotifier();
}

kyProgressNotifierBase::~kyProgressNotifierBase() = default;

bool kyProgressNotifierBase::shouldCancel() const
{
    return ShouldCancel(mInternalFlag, mExternalFlag, mExternal);
}

void kyProgressNotifierBase::cancel()
{
    setInternalCancelFlag(true);
}

void kyProgressNotifierBase::setInternalCancelFlag(bool flag)
{
    mInternalFlag.store(flag, std::memory_order_relaxed);
}

void kyProgressNotifierBase::setExternalCancelFlag(const bool* flag)
{
    mExternalFlag = flag != nullptr ? flag : &mSpareFlag;
}

void kyProgressNotifierBase::setExternalCancelInterface(const kyCancelInterfaceReadOnly* source)
{
    mExternal = source;
}

void kyProgressNotifierBase::resetNotifier()
{
    mGroups.clear();
    // Differs from what comes next.
    mGlobalProgress.store(-1.0f, std::memory_order_relaxed);
    beginStepGroupWeights({1.0}, 1.0, nullptr);
    // kept: only now, so that what is called above still finds the operation cancelled.
    mInternalFlag.store(false, std::memory_order_relaxed);
}

void kyProgressNotifierBase::beginStepGroupWeights(const std::vector<double>& weights,
                                                   double firstStepMaxProgress,
                                                   kyProgressNotifierGroupCloser* closer)
{
    mGroups.push_back(MakeGroup(weights));
    mGroups.back().maxProgress = PositiveOrOne(firstStepMaxProgress);
    // kept: a closer that still holds this notifier closes the group that was just opened.
    if (closer != nullptr)
        closer->setNotifier(this);
    update();
}

kyProgressNotifierBase::StepGroup kyProgressNotifierBase::MakeGroup(
    const std::vector<double>& weights)
{
    double sum = 0.0;
    for (const double weight : weights)
        sum += weight;
    StepGroup group;
    if (weights.size() < 2 || !(sum > 0.0)) {
        group.scales = {1.0};
        group.offsets = {0.0};
        return group;
    }
    group.scales.reserve(weights.size());
    group.offsets.reserve(weights.size());
    double offset = 0.0;
    for (const double weight : weights) {
        group.scales.push_back(weight / sum);
        group.offsets.push_back(offset);
        offset += group.scales.back();
    }
    return group;
}

void kyProgressNotifierBase::endStepGroup()
{
    if (mGroups.empty())
        return;
    mGroups.pop_back();
    if (!mGroups.empty())
        mGroups.back().progress = mGroups.back().maxProgress;
    update();
}

void kyProgressNotifierBase::changeCurrentStep(double maxProgress, unsigned long stepIndex)
{
    if (mGroups.empty())
        return;
    StepGroup& group = mGroups.back();
    group.currentStep = std::min<unsigned long>(stepIndex, group.scales.size() - 1);
    restartStep(maxProgress);
}

void kyProgressNotifierBase::setCurrentStepMaxProgress(double maxProgress)
{
    if (!mGroups.empty())
        restartStep(maxProgress);
}

void kyProgressNotifierBase::restartStep(double maxProgress)
{
    mGroups.back().progress = 0.0;
    mGroups.back().maxProgress = PositiveOrOne(maxProgress);
    update();
}

void kyProgressNotifierBase::getCurrentStepProgress(double& progress, double& maxProgress)
{
    if (mGroups.empty())
        return;
    progress = mGroups.back().progress;
    maxProgress = mGroups.back().maxProgress;
}

void kyProgressNotifierBase::setCurrentStepProgress(double progress)
{
    if (mGroups.empty())
        return;
    // kept: only an increment stops at 0.
    mGroups.back().progress = std::min(progress, mGroups.back().maxProgress);
    update();
}

void kyProgressNotifierBase::incrementCurrentStepProgress(double increment)
{
    if (mGroups.empty())
        return;
    StepGroup& group = mGroups.back();
    const double progress = std::min(group.progress + increment, group.maxProgress);
    group.progress = progress > 0.0 ? progress : 0.0;
    update();
}

float kyProgressNotifierBase::getGlobalProgress() const
{
    return mGlobalProgress.load(std::memory_order_relaxed);
}

void kyProgressNotifierBase::onProgressChanged(float /*globalProgress*/) {}

void kyProgressNotifierBase::update()
{
    double whole = 1.0;
    if (!mGroups.empty())
        whole = mGroups.back().progress / mGroups.back().maxProgress;
    for (auto group = mGroups.rbegin(); group != mGroups.rend(); ++group)
        whole = whole * group->scales[group->currentStep] + group->offsets[group->currentStep];
    const auto rounded = static_cast<float>(whole);
    if (rounded == mGlobalProgress.load(std::memory_order_relaxed))
        return;
    mGlobalProgress.store(rounded, std::memory_order_relaxed);
    onProgressChanged(rounded);
}

kyProgressNotifierCancelSupportOnly::kyProgressNotifierCancelSupportOnly(
    const bool* externalCancelFlag, const kyCancelInterfaceReadOnly* externalCancel)
    : mExternalFlag(externalCancelFlag != nullptr ? externalCancelFlag : &mSpareFlag),
      mExternal(externalCancel)
{}

kyProgressNotifierCancelSupportOnly::~kyProgressNotifierCancelSupportOnly() = default;

bool kyProgressNotifierCancelSupportOnly::shouldCancel() const
{
    return ShouldCancel(mInternalFlag, mExternalFlag, mExternal);
}

void kyProgressNotifierCancelSupportOnly::cancel()
{
    setInternalCancelFlag(true);
}

void kyProgressNotifierCancelSupportOnly::setInternalCancelFlag(bool flag)
{
    mInternalFlag.store(flag, std::memory_order_relaxed);
}

void kyProgressNotifierCancelSupportOnly::setExternalCancelFlag(const bool* flag)
{
    mExternalFlag = flag != nullptr ? flag : &mSpareFlag;
}

void kyProgressNotifierCancelSupportOnly::setExternalCancelInterface(
    const kyCancelInterfaceReadOnly* source)
{
    mExternal = source;
}

void kyProgressNotifierCancelSupportOnly::resetNotifier()
{
    mInternalFlag.store(false, std::memory_order_relaxed);
}

}  // namespace ky

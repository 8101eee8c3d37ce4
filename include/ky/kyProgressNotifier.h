#pragma once

#include "ky/kyCancelInterface.h"
#include "ky/kyExport.h"

#include <atomic>
#include <memory>
#include <vector>

namespace ky {

class kyMutex;
class kyProgressNotifierGroupCloser;

/// Takes the progress of a long operation, which does not know how it is shown, and is the
/// operation's cancel source.
///
/// Work is described by nested groups: each splits the current step of the group around it into
/// weighted steps, and each step has a progress scale of its own. Groups are opened and closed like
/// brackets. One thread at a time, except that cancelling and asking are free for all.
class KY_API kyProgressNotifierInterface : public kyCancelInterface {
public:
    ~kyProgressNotifierInterface() override;

    /// What `cancel()` sets, and what `false` takes back.
    virtual void setInternalCancelFlag(bool flag) = 0;

    /// Back to the start: one group of one step whose maximum is 1, and nothing cancelled by
    /// `cancel()`.
    virtual void resetNotifier() = 0;

    /// Splits the current step into one step per weight and makes the first of them the current
    /// one, with progress 0. Fewer than two weights, or weights whose sum is not positive, give one
    /// step. `closer`, if any, is borrowed and will close the group.
    virtual void beginStepGroupWeights(const std::vector<double>& weights,
                                       double firstStepMaxProgress = 1.0,
                                       kyProgressNotifierGroupCloser* closer = nullptr) = 0;

    /// Closes the innermost group; the step that held it is complete. For groups that the caller
    /// has opened.
    virtual void endStepGroup() = 0;

    /// Makes `stepIndex`, or the last step when there are fewer, the current step of the innermost
    /// group, with progress 0. A maximum that is not positive counts as 1, here and elsewhere.
    virtual void changeCurrentStep(double maxProgress, unsigned long stepIndex) = 0;

    /// Starts the current step again with another maximum.
    virtual void setCurrentStepMaxProgress(double maxProgress) = 0;

    /// Of the innermost group; leaves both alone when there is none.
    virtual void getCurrentStepProgress(double& progress, double& maxProgress) = 0;

    /// Keeps to the maximum, but a negative progress, and NaN, as it is.
    virtual void setCurrentStepProgress(double progress) = 0;

    /// Keeps within 0 and the maximum.
    virtual void incrementCurrentStepProgress(double increment) = 0;

    /// The whole as it was computed last, from 0 to 1 unless a step has a negative progress.
    virtual float getGlobalProgress() const = 0;
};

/// Closes a group of steps at the end of a scope. One closer per group: a second group opened with
/// a closer that still holds the notifier of the first is closed at once.
class KY_API kyProgressNotifierGroupCloser {
public:
    kyProgressNotifierGroupCloser() = default;
    ~kyProgressNotifierGroupCloser() { forgiveNotifier(true); }
    kyProgressNotifierGroupCloser(const kyProgressNotifierGroupCloser&) = delete;
    kyProgressNotifierGroupCloser& operator=(const kyProgressNotifierGroupCloser&) = delete;

    /// Closes the group of the previous notifier, if any, and borrows the new one, which may be
    /// null. Called by the notifier when a group is opened.
    void setNotifier(kyProgressNotifierInterface* notifier);

    /// Forgets the notifier, with or without closing its group first.
    void forgiveNotifier(bool closeGroup);

private:
    kyProgressNotifierInterface* mNotifier = nullptr;
};

/// For classes whose work can be watched by a notifier.
class KY_API kyProgressMonitorable {
public:
    virtual ~kyProgressMonitorable();
};

/// Folds the groups into one figure and tells subclasses when it changes.
///
/// The figure rests on the progress of the innermost group; of the groups around it only the place
/// of their current step counts. Opening a group in a step that has progress already moves the
/// figure back.
class KY_API kyProgressNotifierBase : public kyProgressNotifierInterface {
public:
    /// Borrows a flag and a source that cancel as well, null for none. The flag is read with a
    /// relaxed atomic load. What is reported here reaches no subclass.
    explicit kyProgressNotifierBase(const bool* externalCancelFlag = nullptr,
                                    const kyCancelInterfaceReadOnly* externalCancel = nullptr);
    ~kyProgressNotifierBase() override;
    kyProgressNotifierBase(const kyProgressNotifierBase&) = delete;
    kyProgressNotifierBase& operator=(const kyProgressNotifierBase&) = delete;

    /// Asks the flag that `cancel()` sets, the external flag and the external source, in this
    /// order; the first yes ends it.
    bool shouldCancel() const override;

    void cancel() override;
    void setInternalCancelFlag(bool flag) override;

    /// Take the place of what the constructor was given, null for none. While nobody asks.
    void setExternalCancelFlag(const bool* flag);
    void setExternalCancelInterface(const kyCancelInterfaceReadOnly* source);

    /// Reports 0, always, and takes back what `cancel()` set only then.
    void resetNotifier() override;

    void beginStepGroupWeights(const std::vector<double>& weights,
                               double firstStepMaxProgress = 1.0,
                               kyProgressNotifierGroupCloser* closer = nullptr) override;

    /// Closing the outermost group too completes the whole: it stands at 1 then, and nothing but
    /// opening a group or a reset moves it.
    void endStepGroup() override;

    void changeCurrentStep(double maxProgress, unsigned long stepIndex) override;
    void setCurrentStepMaxProgress(double maxProgress) override;
    void getCurrentStepProgress(double& progress, double& maxProgress) override;
    void setCurrentStepProgress(double progress) override;
    void incrementCurrentStepProgress(double increment) override;
    float getGlobalProgress() const override;

    /// Called on the caller's thread whenever the global progress differs from the last one. It
    /// should not throw: a closer's destructor may be what calls it.
    virtual void onProgressChanged(float globalProgress);

private:
    struct StepGroup {
        std::vector<double> scales;   // share of each step
        std::vector<double> offsets;  // the shares before it
        unsigned long currentStep = 0;
        double maxProgress = 1.0;
        double progress = 0.0;
    };

    static StepGroup MakeGroup(const std::vector<double>& weights);
    void restartStep(double maxProgress);
    void update();

    std::vector<StepGroup> mGroups;  // innermost last
    const bool* mExternalFlag;       // mSpareFlag when none is given
    const kyCancelInterfaceReadOnly* mExternal;
    std::atomic<float> mGlobalProgress = 0.0f;  // written by who reports, read by anyone
    std::atomic<bool> mInternalFlag = false;    // written by any thread
    const bool mSpareFlag = false;
};

/// Draws a bar on standard output, over and over in the same line, for each whole percent. Neither
/// ends the line nor flushes the stream.
class KY_API kyProgressNotifierConsoleView : public kyProgressNotifierBase {
public:
    /// Draws an empty bar, `width` characters long.
    explicit kyProgressNotifierConsoleView(
        const bool* externalCancelFlag = nullptr, int width = 50,
        const kyCancelInterfaceReadOnly* externalCancel = nullptr);
    ~kyProgressNotifierConsoleView() override;

    /// Progress above 1 draws a bar that is longer than `width`, and negative progress an empty one
    /// with more blanks, to a limit of 65536 characters, or `width` where that is more. NaN counts
    /// as 0.
    void onProgressChanged(float globalProgress) override;

private:
    const int mWidth;
    int mLastPercent = -1;
};

/// A cancel source for operations that want a notifier; ignores all progress.
class KY_API kyProgressNotifierCancelSupportOnly : public kyProgressNotifierInterface {
public:
    /// As `kyProgressNotifierBase`.
    explicit kyProgressNotifierCancelSupportOnly(
        const bool* externalCancelFlag = nullptr,
        const kyCancelInterfaceReadOnly* externalCancel = nullptr);
    ~kyProgressNotifierCancelSupportOnly() override;
    kyProgressNotifierCancelSupportOnly(const kyProgressNotifierCancelSupportOnly&) = delete;
    kyProgressNotifierCancelSupportOnly& operator=(const kyProgressNotifierCancelSupportOnly&) =
        delete;

    /// As in `kyProgressNotifierBase`.
    bool shouldCancel() const override;
    void cancel() override;
    void setInternalCancelFlag(bool flag) override;
    void setExternalCancelFlag(const bool* flag);
    void setExternalCancelInterface(const kyCancelInterfaceReadOnly* source);

    void resetNotifier() override;
    void beginStepGroupWeights(const std::vector<double>&, double = 1.0,
                               kyProgressNotifierGroupCloser* = nullptr) override
    {}
    void endStepGroup() override {}
    void changeCurrentStep(double, unsigned long) override {}
    void setCurrentStepMaxProgress(double) override {}
    void getCurrentStepProgress(double&, double&) override {}
    void setCurrentStepProgress(double) override {}
    void incrementCurrentStepProgress(double) override {}
    float getGlobalProgress() const override { return 0.0f; }

private:
    const bool* mExternalFlag;  // mSpareFlag when none is given
    const kyCancelInterfaceReadOnly* mExternal;
    std::atomic<bool> mInternalFlag = false;  // written by any thread
    const bool mSpareFlag = false;
};

/// Lets several threads use one notifier: every call holds a mutex of the proxy's own. The target
/// is borrowed and must not be used past the proxy meanwhile.
///
/// Groups opened with a closer are closed through the proxy. A callback of the target may use the
/// proxy.
class KY_API kyProgressNotifierThreadSafeProxy : public kyProgressNotifierInterface {
public:
    /// `target`, borrowed, must not be null. Before full initialisation the mutex logs one CRITICAL
    /// line; the proxy works anyway.
    explicit kyProgressNotifierThreadSafeProxy(kyProgressNotifierInterface* target);
    ~kyProgressNotifierThreadSafeProxy() override;
    kyProgressNotifierThreadSafeProxy(const kyProgressNotifierThreadSafeProxy&) = delete;
    kyProgressNotifierThreadSafeProxy& operator=(const kyProgressNotifierThreadSafeProxy&) = delete;

    /// The target's, under the mutex.
    bool shouldCancel() const override;
    void cancel() override;
    void setInternalCancelFlag(bool flag) override;
    void resetNotifier() override;
    void beginStepGroupWeights(const std::vector<double>& weights,
                               double firstStepMaxProgress = 1.0,
                               kyProgressNotifierGroupCloser* closer = nullptr) override;
    void endStepGroup() override;
    void changeCurrentStep(double maxProgress, unsigned long stepIndex) override;
    void setCurrentStepMaxProgress(double maxProgress) override;
    void getCurrentStepProgress(double& progress, double& maxProgress) override;
    void setCurrentStepProgress(double progress) override;
    void incrementCurrentStepProgress(double increment) override;
    float getGlobalProgress() const override;

private:
    kyProgressNotifierInterface* const mTarget;
    const std::unique_ptr<kyMutex> mMutex;
};

}  // namespace ky

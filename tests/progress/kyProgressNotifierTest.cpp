#include "ky/kyProgressNotifier.h"

#include "support/Library.h"

#include <limits>
#include <thread>
#include <utility>
#include <vector>

using ky::kyProgressNotifierBase;
using ky::kyProgressNotifierGroupCloser;
using ky::kyProgressNotifierThreadSafeProxy;

namespace {

using Reports = std::vector<float>;

using ProgressNotifier = ky::test::FullLibrary;

struct Recorder : kyProgressNotifierBase {
    using kyProgressNotifierBase::kyProgressNotifierBase;
    void onProgressChanged(float progress) override
    {
        reports.push_back(progress);
        wasCancelled = shouldCancel();
    }
    Reports take() { return std::exchange(reports, {}); }
    Reports reports;
    bool wasCancelled = false;
};

std::string Bar(std::size_t filled, std::size_t empty, const std::string& percent)
{
    return "\r[" + std::string(filled, '=') + std::string(empty, ' ') + "] " + percent + "%  ";
}

}  // namespace

TEST(ProgressFold, GivesTheToldFigures)
{
    Recorder notifier;
    notifier.beginStepGroupWeights({1, 3}, 2);
    notifier.setCurrentStepProgress(1);
    notifier.changeCurrentStep(-1, ~0UL);
    notifier.beginStepGroupWeights({}, 2);
    notifier.setCurrentStepProgress(1);
    notifier.endStepGroup();
    notifier.endStepGroup();
    EXPECT_EQ(notifier.take(), Reports({0.125f, 0.25f, 0.625f, 1.0f}));

    notifier.setCurrentStepMaxProgress(4);
    notifier.setCurrentStepProgress(9);
    notifier.setCurrentStepMaxProgress(0);
    notifier.setCurrentStepProgress(-5);
    notifier.incrementCurrentStepProgress(1);
    notifier.incrementCurrentStepProgress(8);
    notifier.setCurrentStepProgress(0.5);
    notifier.setCurrentStepProgress(0.500000000001);
    notifier.beginStepGroupWeights({1, -1}, 2);
    notifier.setCurrentStepProgress(1);
    EXPECT_EQ(notifier.take(), Reports({0, 1, 0, -5, 0, 1, 0.5, 0, 0.5}));

    notifier.resetNotifier();
    notifier.endStepGroup();
    double progress = 3;
    notifier.endStepGroup();
    notifier.changeCurrentStep(1, 0);
    notifier.setCurrentStepMaxProgress(2);
    notifier.setCurrentStepProgress(1);
    notifier.incrementCurrentStepProgress(1);
    notifier.getCurrentStepProgress(progress, progress);
    EXPECT_EQ(notifier.take(), Reports({0, 1}));
    EXPECT_EQ(progress, 3) << "told without a group";
}

TEST(ProgressCancel, AsksItsOwnFlagThenTheExternalOnes)
{
    const auto check = [](auto&& notifier) {
        bool flag = false;
        bool sourceFlag = true;
        const ky::kyCancelInterfaceProxyReadOnly source(&sourceFlag);
        EXPECT_FALSE(notifier.shouldCancel());
        notifier.setExternalCancelFlag(&flag);
        notifier.setExternalCancelInterface(&source);
        EXPECT_TRUE(notifier.shouldCancel());
        sourceFlag = false;
        flag = true;
        EXPECT_TRUE(notifier.shouldCancel());
        notifier.setExternalCancelFlag(nullptr);
        notifier.cancel();
        EXPECT_TRUE(notifier.shouldCancel());
        notifier.resetNotifier();
        EXPECT_FALSE(notifier.shouldCancel());
    };
    Recorder notifier;
    check(notifier);
    EXPECT_TRUE(notifier.wasCancelled) << "reset forgot too early";
    check(ky::kyProgressNotifierCancelSupportOnly());
}

TEST(ProgressGroupCloser, ClosesItsGroupUnlessForgiven)
{
    Recorder notifier;
    notifier.beginStepGroupWeights({1, 1});
    {
        kyProgressNotifierGroupCloser closer;
        notifier.beginStepGroupWeights({1, 1}, 1.0, &closer);
        // kept: used again it closes what it has just opened, and its end the group around that.
        notifier.beginStepGroupWeights({1, 1}, 1.0, &closer);
        EXPECT_EQ(notifier.take(), Reports({0.25f}));
    }
    EXPECT_EQ(notifier.take(), Reports({0.5f}));
    {
        kyProgressNotifierGroupCloser closer;
        notifier.beginStepGroupWeights({1, 1}, 1.0, &closer);
        notifier.take();
        closer.forgiveNotifier(false);
    }
    EXPECT_EQ(notifier.take(), Reports());
}

TEST(ProgressConsoleView, DrawsTheToldBytes)
{
    const struct {
        int width;
        float progress;
        std::string bar;
    } rows[] = {
        {100, 0.29f, Bar(29, 71, "28")},  // 28.99... in double, 29 in single precision
        {10, 1e30f, Bar(65536, 0, "2147483647")},
        {10, -1e30f, Bar(0, 65536, "-2147483648")},
    };
    ky::test::CaughtStream out(std::cout);
    for (const auto& row : rows) {
        ky::kyProgressNotifierConsoleView view(nullptr, row.width);
        const std::string empty = Bar(0, static_cast<std::size_t>(row.width), "0");
        EXPECT_EQ(out.take(), empty);
        view.onProgressChanged(0.009f);
        EXPECT_EQ(out.take(), "") << "drawn below one percent";
        view.onProgressChanged(row.progress);
        EXPECT_EQ(out.take(), row.bar);
        view.onProgressChanged(std::numeric_limits<float>::quiet_NaN());
        EXPECT_EQ(out.take(), empty);
    }
}

TEST_F(ProgressNotifier, IsSharedByThreadsThroughAProxy)
{
    struct CountingProxy : kyProgressNotifierThreadSafeProxy {
        using kyProgressNotifierThreadSafeProxy::kyProgressNotifierThreadSafeProxy;
        void endStepGroup() override
        {
            ++closed;
            kyProgressNotifierThreadSafeProxy::endStepGroup();
        }
        int closed = 0;
    };
    Recorder target;
    CountingProxy proxy(&target);
    {
        kyProgressNotifierGroupCloser closer;
        proxy.beginStepGroupWeights({1, 1}, 2000, &closer);
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                for (int step = 0; step < 500 && !proxy.shouldCancel(); ++step)
                    proxy.incrementCurrentStepProgress(1);
            });
        threads.clear();
        EXPECT_EQ(target.take().size(), 2000u);
    }
    EXPECT_EQ(proxy.closed, 1) << "closed past the lock";
}

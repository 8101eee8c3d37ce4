#include "ky/kyProgressNotifier.h"

#include "support/Library.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using ky::kyProgressNotifierBase;
using ky::kyProgressNotifierCancelSupportOnly;
using ky::kyProgressNotifierConsoleView;
using ky::kyProgressNotifierGroupCloser;
using ky::kyProgressNotifierThreadSafeProxy;

namespace {

using Reports = std::vector<float>;
constexpr double sInfinity = std::numeric_limits<double>::infinity();
constexpr float sNan = std::numeric_limits<float>::quiet_NaN();

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

/// Works off commands with numbers behind them, as "open 1 3; set 0.5; step 1 1; close".
void Perform(kyProgressNotifierBase& notifier, const std::string& commands)
{
    std::istringstream all(commands);
    for (std::string one; std::getline(all, one, ';');) {
        std::istringstream words(one);
        std::string command;
        words >> command;
        std::vector<double> numbers;
        for (double number = 0; words >> number;)
            numbers.push_back(number);
        if (command == "open")
            notifier.beginStepGroupWeights(numbers, 2);
        else if (command == "close")
            notifier.endStepGroup();
        else if (command == "step")
            notifier.changeCurrentStep(numbers.at(0), static_cast<unsigned long>(numbers.at(1)));
        else if (command == "max")
            notifier.setCurrentStepMaxProgress(numbers.at(0));
        else if (command == "set")
            notifier.setCurrentStepProgress(numbers.at(0));
        else if (command == "add")
            notifier.incrementCurrentStepProgress(numbers.at(0));
        else if (command == "reset")
            notifier.resetNotifier();
        else
            ADD_FAILURE() << command;
    }
}

struct ProgressNotifier : ky::test::FullLibrary {};

}  // namespace

TEST(ProgressFold, GivesTheToldFigures)
{
    const struct {
        const char* commands;
        Reports reports;
    } rows[] = {
        {"open 1 3; set 1; step 1 1; set 0.5; close", {0.125f, 0.25f, 0.625f, 1.0f}},
        {"open; set 1", {0.5f}},
        {"open 1 -1; set 1; step 1 1", {0.5f, 0.0f}},
        {"open 1 1; step 4 9e18; set 2", {0.5f, 0.75f}},
        {"max 4; set 1; set 9; max 0; set 0.5", {0.25f, 1.0f, 0.0f, 0.5f}},
        {"step 4 0; set 1; step -3 0; set 0.5", {0.25f, 0.0f, 0.5f}},
        {"set -5; add 1; add 8; add -5", {-5.0f, 0.0f, 1.0f, 0.0f}},
        {"set 0.5; set 0.500000000001", {0.5f}},
        {"open 1 3; open 1 1; step 1 1; open 1 3; step 4 1; set 2; close",
         {0.125f, 0.15625f, 0.203125f, 0.25f}},
        {"close; close; step 1 0; max 2; set 1; add 1", {1.0f}},
        {"close; open 1 1; set 1", {1.0f, 0.0f, 0.25f}},
        {"reset; set 0.5; open 1 1; reset; set 0.5", {0.0f, 0.5f, 0.0f, 0.0f, 0.5f}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.commands);
        Recorder notifier;
        EXPECT_EQ(notifier.getGlobalProgress(), 0.0f);
        Perform(notifier, row.commands);
        EXPECT_EQ(notifier.reports, row.reports);
        EXPECT_EQ(notifier.getGlobalProgress(), row.reports.back());
    }
}

TEST(ProgressFold, TellsTheCurrentStepAndReportsNanEveryTime)
{
    Recorder notifier;
    double progress = 0;
    double most = 0;
    notifier.setCurrentStepMaxProgress(8);
    notifier.setCurrentStepProgress(-5);
    notifier.getCurrentStepProgress(progress, most);
    EXPECT_TRUE(progress == -5 && most == 8);

    notifier.take();
    notifier.beginStepGroupWeights({sInfinity, 1});
    notifier.setCurrentStepProgress(sNan);
    EXPECT_EQ(notifier.take().size(), 2u);
    notifier.endStepGroup();
    notifier.setCurrentStepProgress(sNan);
    notifier.incrementCurrentStepProgress(1);
    EXPECT_EQ(notifier.getGlobalProgress(), 0.0f);

    notifier.endStepGroup();
    notifier.getCurrentStepProgress(progress, most);
    EXPECT_TRUE(progress == -5 && most == 8) << "changed without a group";
}

TEST(ProgressCancel, AsksItsOwnFlagThenTheExternalOnes)
{
    struct Asked : ky::kyCancelInterfaceReadOnly {
        bool shouldCancel() const override { return ++count, answer; }
        mutable int count = 0;
        bool answer = false;
    };
    const auto check = [](auto& notifier, Asked& source, bool& flag) {
        EXPECT_FALSE(notifier.shouldCancel());
        source.answer = true;
        EXPECT_TRUE(notifier.shouldCancel());
        EXPECT_EQ(std::exchange(source.count, 0), 2);
        flag = true;
        EXPECT_TRUE(notifier.shouldCancel());
        notifier.setExternalCancelFlag(nullptr);
        notifier.cancel();
        EXPECT_TRUE(notifier.shouldCancel());
        EXPECT_EQ(source.count, 0) << "asked behind a yes";
        notifier.setExternalCancelInterface(nullptr);
        notifier.resetNotifier();
        EXPECT_FALSE(notifier.shouldCancel());
        source.answer = flag = false;
    };
    Asked source;
    bool flag = false;
    Recorder notifier(&flag, &source);
    check(notifier, source, flag);
    EXPECT_TRUE(notifier.wasCancelled) << "reset forgot too early";

    kyProgressNotifierCancelSupportOnly only(&flag, &source);
    check(only, source, flag);
    double progress = 3;
    only.beginStepGroupWeights({1, 1}, 2);
    only.setCurrentStepProgress(1);
    only.getCurrentStepProgress(progress, progress);
    EXPECT_TRUE(progress == 3 && only.getGlobalProgress() == 0.0f);
}

TEST(ProgressGroupCloser, ClosesItsGroupUnlessForgiven)
{
    Recorder notifier;
    notifier.beginStepGroupWeights({1, 1});
    {
        kyProgressNotifierGroupCloser closer;
        notifier.beginStepGroupWeights({1, 1}, 1.0, &closer);
    }
    EXPECT_EQ(notifier.take(), Reports({0.5f}));
    notifier.changeCurrentStep(1, 1);
    {
        kyProgressNotifierGroupCloser closer;
        notifier.beginStepGroupWeights({1, 1}, 1.0, &closer);
        closer.forgiveNotifier(false);
    }
    EXPECT_EQ(notifier.take(), Reports());
    notifier.endStepGroup();
    EXPECT_EQ(notifier.take(), Reports({1.0f}));

    // Used again it closes what it has just opened, and its end closes the group around that.
    notifier.resetNotifier();
    notifier.beginStepGroupWeights({1, 1});
    {
        kyProgressNotifierGroupCloser closer;
        notifier.beginStepGroupWeights({1, 1}, 1.0, &closer);
        notifier.take();
        notifier.beginStepGroupWeights({1, 1}, 1.0, &closer);
        EXPECT_EQ(notifier.take(), Reports({0.25f}));
    }
    EXPECT_EQ(notifier.take(), Reports({0.5f}));
}

TEST(ProgressConsoleView, DrawsTheToldBytes)
{
    const struct {
        int width;
        float progress;
        std::size_t filled;
        std::size_t empty;
        const char* percent;
    } rows[] = {
        {100, 0.29f, 29, 71, "28"},  // 28.99... in double, 29 in single precision
        {0, 0.5f, 0, 0, "50"},
        {10, -0.25f, 0, 13, "-25"},
        {10, 2.5f, 25, 0, "250"},
        {10, 1e30f, 65536, 0, "2147483647"},
        {10, -1e30f, 0, 65536, "-2147483648"},
        {70000, 3e9f, 70000, 0, "2147483647"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.percent + std::string(" of ") + std::to_string(row.width));
        ky::test::CaughtStream out(std::cout);
        kyProgressNotifierConsoleView view(nullptr, row.width);
        const auto spaces = static_cast<std::size_t>(std::max(row.width, 0));
        EXPECT_EQ(out.take(), "\r[" + std::string(spaces, ' ') + "] 0%  ");
        view.onProgressChanged(row.progress);
        EXPECT_EQ(out.take(), "\r[" + std::string(row.filled, '=') + std::string(row.empty, ' ') +
                                  "] " + row.percent + "%  ");
        view.onProgressChanged(sNan);
        EXPECT_EQ(out.take(), "\r[" + std::string(spaces, ' ') + "] 0%  ");
    }

    ky::test::CaughtStream out(std::cout);
    kyProgressNotifierConsoleView view(nullptr, 4);
    out.take();
    view.setCurrentStepProgress(0.009);
    EXPECT_EQ(out.take(), "") << "drawn below one percent";
    view.setCurrentStepProgress(0.25);
    EXPECT_EQ(out.take(), "\r[=   ] 25%  ");
    view.resetNotifier();
    EXPECT_EQ(out.take(), "\r[    ] 0%  ");
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
    constexpr int increments = 2000;
    Recorder target;
    CountingProxy proxy(&target);
    {
        kyProgressNotifierGroupCloser closer;
        proxy.beginStepGroupWeights({1, 1}, increments, &closer);
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                for (int step = 0; step < increments / 4 && !proxy.shouldCancel(); ++step)
                    proxy.incrementCurrentStepProgress(1);
            });
        threads.clear();
        EXPECT_EQ(target.take().size(), std::size_t{increments});
        EXPECT_EQ(proxy.getGlobalProgress(), 0.5f);
    }
    EXPECT_EQ(proxy.closed, 1) << "closed past the lock";
    EXPECT_EQ(target.take(), Reports({1.0f}));

    double progress = 0;
    double most = 0;
    proxy.getCurrentStepProgress(progress, most);
    EXPECT_TRUE(progress == 1 && most == 1);
    proxy.cancel();
    EXPECT_TRUE(target.shouldCancel());
    proxy.setInternalCancelFlag(false);
    EXPECT_FALSE(target.shouldCancel());
}

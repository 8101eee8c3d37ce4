#include "ky/ConcurrentPool.h"
#include "ky/kyLog.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystem.h"

#include "frame/State.h"
#include "support/Child.h"
#include "support/Library.h"
#include "support/Logged.h"

#include <filesystem>
#include <iterator>
#include <map>
#include <vector>

#include <sched.h>
#include <unistd.h>

using ky::InitType;
using ky::impl::State;
using ky::test::RunInChild;

namespace {

std::size_t EntriesOf(const char* folder)
{
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// L light, F full, T terminate, others none of these types, and the levels after each call.
void ExpectLevels(const std::string& calls, const std::vector<int>& levels)
{
    const std::map<char, int> types = {{'L', 1}, {'F', 2}, {'0', 0}, {'3', 3}, {'-', -1}};
    for (std::size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(calls.substr(0, i + 1));
        if (calls[i] == 'T')
            ky::terminateKySystem();
        else
            ky::initializeKySystem(static_cast<InitType>(types.at(calls[i])), false);
        EXPECT_EQ(State::Level(), levels[i]);
        EXPECT_EQ(ky::IsKySystemThreadSafe(), levels[i] == 2);
        EXPECT_EQ(ky::kyLog::Instance() != nullptr, levels[i] != 0);
        EXPECT_EQ(ky::kyStringUtils::msCLocale != nullptr, levels[i] != 0);
        EXPECT_EQ(ky::concurrent::GetConcurrentPool() != nullptr, levels[i] == 2);
    }
}

}  // namespace

TEST(Lifecycle, NestsLightAndFullUsers)
{
    ExpectLevels("0L3T-F-T", {0, 1, 1, 0, 0, 2, 2, 0});
    ExpectLevels("LFTT", {1, 2, 2, 0});
    ExpectLevels("FLTT", {2, 2, 2, 0});
    // The full count was cleared, so the next full request is a first one again.
    ExpectLevels("FFTTLFTT", {2, 2, 2, 0, 1, 2, 2, 0});
    EXPECT_EQ(ky::impl::LibInitCounter(nullptr, false).getName(), "n/a");
}

TEST(Lifecycle, WrapsTheCountAfterASurplusTerminate)
{
    ky::terminateKySystem();
    EXPECT_EQ(State::Level(), 0);
    // kept: the count goes from its largest value to 0, which is no first use.
    ky::initializeKySystem(InitType::Light, false);
    EXPECT_EQ(State::Level(), 0);
    EXPECT_EQ(ky::kyLog::Instance(), nullptr);

    ky::terminateKySystem();
    // kept: the full steps have a count of their own. They find no log and no string utilities.
    ky::initializeKySystem(InitType::Full, true);
    EXPECT_EQ(State::Level(), 2);
    EXPECT_NE(ky::concurrent::GetConcurrentPool(), nullptr);
    EXPECT_TRUE(ky::IsKySystemThreadSafe());
    EXPECT_EQ(ky::kyLog::Instance(), nullptr);
    // The counts match again now.
    ky::initializeKySystem(InitType::Light, false);
    EXPECT_NE(ky::kyLog::Instance(), nullptr);
    EXPECT_EQ(State::Level(), 1) << "the light steps set their level";
    ky::terminateKySystem();
    EXPECT_EQ(State::Level(), 0);
    EXPECT_EQ(ky::concurrent::GetConcurrentPool(), nullptr);
}

TEST(Lifecycle, LeavesNothingBehindHoweverOftenItIsRepeated)
{
    ExpectLevels("FT", {2, 0});
    const std::size_t threads = EntriesOf("/proc/self/task");
    const std::size_t descriptors = EntriesOf("/proc/self/fd");
    for (int i = 0; i < 1000; ++i) {
        ky::initializeKySystem(i % 2 == 0 ? InitType::Light : InitType::Full, false);
        ky::initializeKySystem(i % 3 == 0 ? InitType::Light : InitType::Full, false);
        ky::kyLog::Instance()->setEchoToConsole(false);
        ky::kyLogObject(ky::kyLog::Info).setFlushNow(i % 5 == 0) << i;
        ky::terminateKySystem();
        ky::terminateKySystem();
        ASSERT_EQ(State::Level(), 0);
    }
    // The kernel still shows a thread for a moment after it was joined.
    while (EntriesOf("/proc/self/task") > threads)
        ::sched_yield();
    EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
}

TEST(Lifecycle, TellsAForkedChildAtEveryCheckThatItWasForked)
{
    const auto result = RunInChild([] {
        ky::initializeKySystem(InitType::Full, false);
        ky::CheckIfProcessForkAfterThreadSafeInit();
        ky::test::WaitUntilOthersAreAsleep();
        const std::string parent = std::to_string(::getpid());
        const auto child = RunInChild([&] {
            // A handler that checks itself must not go round for ever.
            ky::test::Recorder recorder([](ky::test::Batch& batch) {
                EXPECT_EQ(batch.front().systemLogName, "kySystem");
                EXPECT_EQ(batch.front().level, ky::kyLog::Critical);
                ky::CheckIfProcessForkAfterThreadSafeInit();
            });
            recorder.install();
            EXPECT_TRUE(ky::IsKySystemThreadSafe());
            ky::CheckIfProcessForkAfterThreadSafeInit();
            const std::string text = "Detect process fork after thread initialization from " +
                                     parent + " to " + std::to_string(::getpid());
            EXPECT_EQ(recorder.messages, ky::test::Texts(2, text));
            ky::kyLog::Instance()->setEchoToConsole(false);
            ky::terminateKySystem();
            // The recorded id is kept, but neither a log nor the full level is there.
            State::SetLevel(2);
            ky::CheckIfProcessForkAfterThreadSafeInit();
            State::SetLevel(0);
            ky::initializeKySystem(InitType::Light, false);
            EXPECT_FALSE(ky::IsKySystemThreadSafe());
        });
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
        EXPECT_EQ(ky::test::Lines(child.out).size(), 2u) << child.out;
    });
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
}

#include "ky/ConcurrentPool.h"
#include "ky/kyLog.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystem.h"

#include "frame/Report.h"
#include "frame/State.h"
#include "support/Child.h"
#include "support/Library.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

using ky::InitType;
using ky::impl::LibInitCounter;
using ky::impl::State;
using ky::test::RunInChild;

namespace {

bool StringsWork()
{
    return ky::kyStringUtils::msCLocale != nullptr &&
           !ky::kyStringUtils::convertCharset("a", ky::kyStringUtils::CharSetUtf8,
                                              ky::kyStringUtils::CharSetUsAscii)
                .empty();
}

std::size_t EntriesOf(const char* folder)
{
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// Not all threads: ThreadSanitizer keeps one of its own from the first start of a thread on.
std::size_t ThreadsOfTheLibrary()
{
    std::size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream comm(task.path() / "comm");
        std::getline(comm, name);
        if (name == "kyLog" || name.rfind("kyPool/", 0) == 0)
            ++count;
    }
    return count;
}

/// L light, F full, T terminate, and the levels after each call.
void ExpectLevels(const std::string& calls, const std::vector<int>& levels)
{
    SCOPED_TRACE(calls);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        if (calls[i] == 'T')
            ky::terminateKySystem();
        else
            ky::initializeKySystem(calls[i] == 'L' ? InitType::Light : InitType::Full, false);
        EXPECT_EQ(State::Level(), levels[i]) << "after call " << i;
        EXPECT_EQ(ky::kyLog::Instance() != nullptr, levels[i] != 0) << "after call " << i;
        EXPECT_EQ(StringsWork(), levels[i] != 0) << "after call " << i;
        EXPECT_EQ(ky::concurrent::GetConcurrentPool() != nullptr, levels[i] == 2);
    }
}

}  // namespace

TEST(Lifecycle, NestsLightAndFullUsers)
{
    ExpectLevels("LT", {1, 0});
    ExpectLevels("FT", {2, 0});
    ExpectLevels("LFTT", {1, 2, 2, 0});
    ExpectLevels("FLTT", {2, 2, 2, 0});
    ExpectLevels("FFTT", {2, 2, 2, 0});
    // The full count was cleared, so the next full request is a first one again.
    ExpectLevels("FFTTLFTT", {2, 2, 2, 0, 1, 2, 2, 0});
}

TEST(Lifecycle, IgnoresATypeThatIsNeitherLightNorFull)
{
    for (const int type : {0, 3, -1, 0x7fffffff})
        ky::initializeKySystem(static_cast<InitType>(type), false);
    EXPECT_EQ(State::Level(), 0);
    EXPECT_EQ(ky::kyLog::Instance(), nullptr);
    ExpectLevels("LT", {1, 0});
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
    const std::size_t descriptors = EntriesOf("/proc/self/fd");
    for (int i = 0; i < 1000; ++i) {
        ky::initializeKySystem(i % 2 == 0 ? InitType::Light : InitType::Full, false);
        ky::initializeKySystem(i % 3 == 0 ? InitType::Light : InitType::Full, false);
        ASSERT_TRUE(StringsWork());
        ky::terminateKySystem();
        ky::terminateKySystem();
        ASSERT_EQ(State::Level(), 0);
    }
    // The kernel still shows a thread for a moment after it was joined.
    while (ThreadsOfTheLibrary() != 0)
        ::sched_yield();
    EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
}

TEST(Lifecycle, TellsAForkedChildAtEveryCheckThatItWasForked)
{
    const auto result = RunInChild([] {
        ky::initializeKySystem(InitType::Full, false);
        const auto parent = std::to_string(State::FullInitProcessId());
        ky::CheckIfProcessForkAfterThreadSafeInit();
        ky::test::WaitUntilOthersAreAsleep();
        if (::fork() == 0) {
            // A handler that checks itself must not go round for ever.
            ky::kyLog::Instance()->installCustomHandler(
                [](std::list<ky::kyLog::LogEntry>& batch, void*) {
                    EXPECT_EQ(batch.front().systemLogName, "kySystem");
                    EXPECT_EQ(batch.front().level, ky::kyLog::Critical);
                    ky::CheckIfProcessForkAfterThreadSafeInit();
                },
                nullptr);
            EXPECT_TRUE(ky::IsKySystemThreadSafe());
            ky::CheckIfProcessForkAfterThreadSafeInit();
            const std::string self = std::to_string(::getpid());
            std::cout << parent << " to " << self << std::endl;
            ::_exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        ::wait(&status);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(State::FullInitProcessId(), static_cast<unsigned long>(::getpid()));
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const auto lines = ky::test::Lines(result.out);
    ASSERT_EQ(lines.size(), 3u) << result.out;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(lines[i].find("CRITICAL PID "), 0u);
        EXPECT_NE(
            lines[i].find(" : Detect process fork after thread initialization from " + lines[2]),
            std::string::npos)
            << lines[i];
    }
}

TEST(Lifecycle, KeepsTheForkCheckSilentWithoutALogAndBelowTheFullLevel)
{
    const auto result = RunInChild([] {
        ky::initializeKySystem(InitType::Full, false);
        ky::terminateKySystem();
        ky::initializeKySystem(InitType::Light, false);
        if (::fork() == 0) {
            EXPECT_FALSE(ky::IsKySystemThreadSafe()) << "recorded id kept, but level 1";
            ky::terminateKySystem();
            State::SetLevel(2);
            ky::CheckIfProcessForkAfterThreadSafeInit();
            ::_exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        ::wait(&status);
        EXPECT_EQ(status, 0);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST(Lifecycle, CountsUsersWithWrapAround)
{
    LibInitCounter counter("client", true);
    EXPECT_TRUE(counter.incrementInitCounter());
    EXPECT_TRUE(counter.decrementInitCounter());
    EXPECT_FALSE(counter.decrementInitCounter());
    EXPECT_EQ(counter.getInitCounter(), 0xffffffffu);
    EXPECT_TRUE(counter.isInitialized());
    counter.clearInitCounter();
    EXPECT_TRUE(counter.incrementInitCounter());
    EXPECT_EQ(LibInitCounter(nullptr, false).getName(), "n/a");
}

TEST(Report, FallsBackToItsOwnWriterWithoutALog)
{
    const auto result = RunInChild([] {
        errno = ERANGE;
        ky::impl::Report(ky::impl::ReportLevel::Warning, nullptr, "to the console");
        ky::impl::Report(ky::impl::ReportLevel::Critical, "kySystem", "to the system log");
        ky::impl::ReportIfLogged(ky::impl::ReportLevel::Critical, "kySystem", "to nobody");
        EXPECT_EQ(errno, ERANGE);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out.find("WARNING PID "), 0u) << result.out;
    EXPECT_NE(result.out.find(" : to the console\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.err.find("kySystem : CRITICAL PID "), 0u) << result.err;
    EXPECT_NE(result.err.find(" : to the system log\n"), std::string::npos) << result.err;
}

#include "ky/kyCancelConsoleEventCatcher.h"
#include "ky/kyLog.h"
#include "ky/kyProcess.h"
#include "ky/kySystemUtils.h"
#include "ky/kyThread.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/FailingCall.h"
#include "support/Library.h"

#include <atomic>
#include <iostream>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

using ky::kyThread;
using Catcher = ky::kyCancelConsoleEventCatcher;

namespace {

bool IsDefault(int signal)
{
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

void ExpectCritical(const std::string& line, const std::string& text)
{
    EXPECT_EQ(line.find("CRITICAL PID "), 0u) << line;
    EXPECT_EQ(line.find(" : " + text), line.size() - text.size() - 3) << line;
}

/// Tries both calls on the calling thread, and tells whether they did anything.
bool MayCatch()
{
    Catcher::Create();
    const bool isInstalled = Catcher::Get() != nullptr && !IsDefault(SIGTERM);
    Catcher::Delete();
    return isInstalled && Catcher::Get() == nullptr && IsDefault(SIGTERM);
}

bool MayCatchOnThread()
{
    bool result = false;
    std::thread([&] { result = MayCatch(); }).join();
    return result;
}

}  // namespace

TEST(ConsoleEventCatcher, TurnsSignalsIntoARequestUntilItIsDeleted)
{
    const auto result = ky::test::RunInChild([] {
        ky::initializeKySystem(ky::InitType::Full, false);
        EXPECT_EQ(Catcher::Get(), nullptr);
        Catcher::Create();
        const Catcher* const catcher = Catcher::Get();
        EXPECT_FALSE(catcher->shouldCancel());

        // The host's blocking call ends, so that the host can ask.
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        std::thread sender([self = ::pthread_self(), id = std::to_string(::gettid())] {
            ky::test::WaitUntilAsleep(id);
            ::pthread_kill(self, SIGTERM);
        });
        char byte = 0;
        EXPECT_EQ(::read(ends[0], &byte, 1), -1);
        EXPECT_EQ(errno, EINTR);
        sender.join();
        EXPECT_TRUE(catcher->shouldCancel());

        errno = ERANGE;
        ::raise(SIGINT);
        EXPECT_EQ(errno, ERANGE);
        // kept: the instance stays, the handlers are installed again.
        ::signal(SIGINT, SIG_DFL);
        Catcher::Create();
        EXPECT_EQ(Catcher::Get(), catcher);
        EXPECT_FALSE(IsDefault(SIGINT));
        EXPECT_FALSE(Catcher::GetProxy()->shouldCancel());

        Catcher::Delete();
        EXPECT_EQ(Catcher::Get(), nullptr);
        Catcher::Create();
        EXPECT_TRUE(Catcher::Get()->shouldCancel()) << "kept: never taken back";
        Catcher::Delete();
        // kept: also without an instance, and not the crash report that was there before.
        ::signal(SIGINT, SIG_IGN);
        Catcher::Delete();
        EXPECT_TRUE(IsDefault(SIGINT));
        if (!::testing::Test::HasFailure())
            ::raise(SIGTERM);
    });
    EXPECT_EQ(result.signal, SIGTERM) << result.err;
    EXPECT_EQ(result.out + result.err, "");
}

TEST(ConsoleEventCatcher, BelongsToTheThreadThatInitialisedTheLibrary)
{
    ky::test::ExpectChildPasses([] {
        EXPECT_TRUE(MayCatch()) << "not initialised";
        ky::initializeKySystem(ky::InitType::Full, false);
        EXPECT_TRUE(MayCatch());
        ky::test::CaughtStream console(std::cout);
        EXPECT_FALSE(MayCatchOnThread());
        const auto lines = ky::test::Lines(console.take());
        ASSERT_EQ(lines.size(), 2u);
        ExpectCritical(lines[0], "Trying to Create signal catcher outside of main thread");
        ExpectCritical(lines[1], "Trying to Delete signal catcher outside of main thread");
        ky::terminateKySystem();

        std::thread([] {
            ky::initializeKySystem(ky::InitType::Full, false);
            EXPECT_TRUE(MayCatch());
            EXPECT_FALSE(MayCatchOnThread());
            ky::test::WaitUntilOthersAreAsleep();
            ky::test::ExpectChildPasses([] { EXPECT_TRUE(MayCatch()) << "a forked child"; });
            ky::terminateKySystem();
        }).join();
        EXPECT_TRUE(MayCatch()) << "not initialised any more";
    });
}

TEST(ConsoleEventCatcher, ReportsASignalThatIsRefusedAndGoesOn)
{
    const auto result = ky::test::RunInChild([] {
        ky::initializeKySystem(ky::InitType::Light, false);
        ky::test::LetCallFail(SYS_rt_sigaction, EPERM);
        Catcher::Create();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const auto lines = ky::test::Lines(result.out);
    ASSERT_EQ(lines.size(), 2u) << result.out;
    for (const int signal : {SIGINT, SIGTERM})
        ExpectCritical(lines[signal == SIGTERM],
                       "Failed to install " + std::to_string(signal) +
                           " signal handler : " + ky::test::ErrorText(EPERM));
}

TEST(ConsoleEventCatcher, DisturbsNoServiceOfTheLibrary)
{
    ky::test::ExpectChildPasses([] {
        ky::initializeKySystem(ky::InitType::Full, false);
        Catcher::Create();
        std::atomic<bool> isDone = false;
        std::thread sender([&, self = ::pthread_self()] {
            for (int sent = 0; !isDone; ++sent, kyThread::usleep(100))
                ::pthread_kill(self, sent % 2 == 0 ? SIGINT : SIGTERM);
        });
        for (int round = 0; round < 50; ++round) {
            const unsigned long start = ky::kySystemUtils::GetTimeBaseMs();
            kyThread::msleep(1);
            EXPECT_NE(ky::kySystemUtils::GetTimeBaseMs(), start);
            ky::kyLogObject(ky::kyLog::Info).setFlushNow() << round;
            EXPECT_EQ(ky::kyProcess::ExecUtf8("sleep", {"0.005"}, "", false, 60000, nullptr), 0);
        }
        isDone = true;
        sender.join();
        EXPECT_TRUE(Catcher::Get()->shouldCancel());
        ky::terminateKySystem();
    });
}

#include "ky/kyCancelConsoleEventCatcher.h"

#include "process/ProcessSupport.h"
#include "support/FailingCall.h"

#include <thread>

#include <sys/syscall.h>
#include <cerrno>

using Catcher = ky::kyCancelConsoleEventCatcher;

TEST(ConsoleEventCatcher, TurnsSignalsIntoARequestUntilItIsDeleted)
{
    const auto result = ky::test::RunInChild([] {
        ky::initializeKySystem(ky::InitType::Full, false);
        Catcher::Create();
        const Catcher* const catcher = Catcher::Get();
        EXPECT_FALSE(catcher->shouldCancel());
        struct sigaction action = {};
        ::sigaction(SIGTERM, nullptr, &action);
        EXPECT_EQ(action.sa_flags & SA_RESTART, 0) << "no blocking call of the host would end";
        std::raise(SIGTERM);
        EXPECT_TRUE(catcher->shouldCancel());
        // kept: the instance stays, the handlers are installed again.
        std::signal(SIGINT, SIG_DFL);
        Catcher::Create();
        EXPECT_EQ(Catcher::Get(), catcher);
        std::raise(SIGINT);

        Catcher::Delete();
        Catcher::Create();
        EXPECT_TRUE(Catcher::Get()->shouldCancel()) << "kept: never taken back";
        Catcher::Delete();
        // kept: also without an instance, and not the crash report that was there before.
        std::signal(SIGINT, SIG_IGN);
        Catcher::Delete();
        if (!::testing::Test::HasFailure())
            std::raise(SIGINT);
    });
    EXPECT_EQ(result.signal, SIGINT) << result.err;
    EXPECT_EQ(result.out + result.err, "");
}

TEST(ConsoleEventCatcher, BelongsToTheThreadThatInitialisedTheLibrary)
{
    const auto result = ky::test::RunInChild([] {
        std::thread([] {
            ky::initializeKySystem(ky::InitType::Full, false);
            std::thread(&Catcher::Create).join();
            EXPECT_EQ(Catcher::Get(), nullptr);
            Catcher::Create();
            std::thread(&Catcher::Delete).join();
            EXPECT_NE(Catcher::Get(), nullptr);
            Catcher::Delete();
            ky::terminateKySystem();
        }).join();
        ky::initializeKySystem(ky::InitType::Light, false);
        ky::test::LetCallFail(SYS_rt_sigaction, EPERM);
        Catcher::Create();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const auto lines = ky::test::Lines(result.out);
    const std::string why = " signal handler : " + ky::test::ErrorText(EPERM);
    const std::string texts[] = {"Trying to Create signal catcher outside of main thread",
                                 "Trying to Delete signal catcher outside of main thread",
                                 "Failed to install 2" + why, "Failed to install 15" + why};
    ASSERT_EQ(lines.size(), std::size(texts)) << result.out;
    for (std::size_t i = 0; i < lines.size(); ++i)
        EXPECT_TRUE(lines[i].starts_with("CRITICAL ") && lines[i].ends_with(" : " + texts[i]))
            << lines[i];
}

#include "process/ProcessSupport.h"
#include "support/FailingCall.h"

#include <chrono>
#include <filesystem>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <cerrno>
#include <climits>

using ky::kyProcess;
using ky::test::ExpectChildPasses;
using ky::test::Process;
using ky::test::Words;
using Clock = std::chrono::steady_clock;

TEST_F(Process, RefusesChangesWhileItRunsAndEndsWhenTold)
{
    EXPECT_TRUE(process.waitForFinished(0) && process.hasFailedToStart());
    process.setWorkingDirectory("/");
    ASSERT_TRUE(process.startProcess("sleep", {"1000"}));
    EXPECT_FALSE(process.setWorkingDirectory("/tmp"));
    EXPECT_FALSE(process.setProcessEnvironmentUtf8({"A=B"}, true));
    EXPECT_FALSE(process.resetState());
    EXPECT_FALSE(process.startProcess("true", {}));
    EXPECT_EQ(process.getWorkingDirectoryUtf8(), "/");
    unsigned long resident = 0;
    unsigned long peak = 0;
    EXPECT_TRUE(process.getMemoryStatistics(resident, peak));
    EXPECT_TRUE(resident > 0 && resident < peak && resident % 1024 == 0) << resident;

    process.terminateProcess();
    EXPECT_TRUE(process.waitForFinished(UINT_MAX));
    EXPECT_TRUE(process.hasCrashed());
    EXPECT_EQ(process.exitCode(), SIGTERM);
    errno = 0;
    process.killProcess();
    EXPECT_EQ(errno, 0) << "signalled a number that may be a stranger's";
    EXPECT_FALSE(process.getMemoryStatistics(resident, peak));
    EXPECT_TRUE(process.resetState() && process.getState() == kyProcess::NotStarted);

    std::string error;
    EXPECT_EQ(kyProcess::ExecUtf8("sleep", {"1000"}, "", false, 0, &error), -2);
    EXPECT_EQ(error, "timeout");
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
}

TEST_F(Process, TellsACrashWhenSomebodyElseCollectsTheChild)
{
    ExpectChildPasses([] {
        std::signal(SIGCHLD, SIG_IGN);
        std::string error;
        EXPECT_EQ(kyProcess::ExecUtf8("true", {}, "", false, UINT_MAX, &error), -3);
        EXPECT_EQ(error, "process has crashed");
        ky::test::LetCallFail(SYS_clone, EAGAIN);
        EXPECT_EQ(kyProcess::ExecUtf8("true", {}, "", false, UINT_MAX, &error), -1);
        EXPECT_EQ(error, "Fail to start process");
    });
}

TEST_F(Process, WaitsItsTimeThroughSignalsWhateverBecomesOfItsDescriptor)
{
    ExpectChildPasses([&] {
        ky::test::SendAlarms(1000);
        const rlimit few = {64, 64};
        ::setrlimit(RLIMIT_NOFILE, &few);
        for (const std::string descriptor : {"open", "closed by the host", "none left"}) {
            SCOPED_TRACE(descriptor);
            while (descriptor == "none left" && ::open("/dev/null", O_RDONLY | O_CLOEXEC) != -1) {
            }
            const auto begin = Clock::now();
            process.startProcess("sleep", {"1000"});
            EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(10));
            if (descriptor == "closed by the host")
                ::close_range(3, ~0U, 0);
            EXPECT_FALSE(process.waitForFinished(120));
            EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(10 + 120));
            process.killProcess();
            EXPECT_TRUE(process.waitForFinished(UINT_MAX));
            EXPECT_EQ(process.exitCode(), SIGKILL);
            process.startProcess("no such program", {});
            EXPECT_TRUE(process.hasFailedToStart());
        }
        // Only its command line is missing, which cannot be read.
        EXPECT_TRUE(kyProcess::GetParentProcess(process) && process.getPid() == ::getppid());
    });
}

TEST_F(Process, DescribesItselfAndItsParent)
{
    ASSERT_TRUE(kyProcess::GetCurrentProcess(process));
    EXPECT_EQ(process.getProgramUtf8(), std::filesystem::read_symlink("/proc/self/exe"));
    std::string line(1, '\0');
    for (const std::string& argument : process.getArgumentsUtf8())
        line += argument + '\0';
    const std::string whole = ky::test::Content("/proc/self/cmdline");
    EXPECT_EQ(whole.substr(whole.find('\0')), line);
    EXPECT_FALSE(process.waitForFinished(UINT_MAX));

    ASSERT_TRUE(kyProcess::GetParentProcess(process));
    EXPECT_EQ(process.getPid(), ::getppid());
    EXPECT_FALSE(process.waitForFinished(0));
    ExpectChildPasses([&] {
        EXPECT_TRUE(process.waitForFinished(0)) << "has another parent";
        process.startProcess("sleep", {"1000"});
        EXPECT_EQ(process.getState(), kyProcess::Finished) << "kept: it follows no child";
        ::kill(process.getPid(), SIGKILL);
    });
}

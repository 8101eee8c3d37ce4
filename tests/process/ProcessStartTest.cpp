#include "ky/kyException.h"
#include "ky/kyThread.h"

#include "process/ProcessSupport.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <climits>

namespace fs = std::filesystem;
using ky::kyProcess;
using ky::test::ExpectChildPasses;
using ky::test::PrintedBy;
using ky::test::Process;
using ky::test::Words;

namespace {

/// Runs `body` on a thread of the library's own.
struct LibraryThread : ky::kyThread {
    explicit LibraryThread(std::function<int()> work) : body(std::move(work))
    {
        startLibraryThread("test");
        waitThread(INT_MAX);
    }
    int run() override { return body(); }
    const std::function<int()> body;
};

/// From now on looking for a program takes longer than a start looks at its child.
void MakeSearchLong()
{
    std::string path;
    for (int i = 0; i < 100000; ++i)
        path += "/none:";
    ::setenv("PATH", path.c_str(), 1);
}

}  // namespace

TEST_F(Process, TellsHowAProgramHasEndedOrThatItDidNotStart)
{
    const std::string script = folder.write("script", "exit 5");
    fs::permissions(script, fs::perms::owner_all);
    ::setenv("PATH", (folder.path("") + ":/usr/bin:/bin").c_str(), 1);
    const struct {
        std::string program;
        Words arguments;
        int exitCode;
        bool isStarted = true, hasCrashed = false;
    } rows[] = {
        {"true", {}, 0},
        {"sh", {"-c", "exit 3"}, 3},
        {"sh", {"-c", "ulimit -c 0; sleep 0.02; kill -SEGV $$"}, SIGSEGV, true, true},
        {"script", {}, 5},
        {folder.path(""), {}, 0, false},
        {"no such program", {}, 0, false},
        {"", {}, 0, false},
        {std::string("true\0", 5), {}, 0, false},
        {std::string(300, 'x'), {}, 0, false},
        {"tr\xff", {}, 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.program);
        ASSERT_TRUE(process.startProcess(row.program, row.arguments));
        EXPECT_TRUE(process.waitForFinished(UINT_MAX));
        EXPECT_EQ(process.hasFailedToStart(), !row.isStarted);
        EXPECT_EQ(process.hasCrashed(), row.hasCrashed);
        EXPECT_EQ(process.exitCode(), row.exitCode);
        std::string error = "old";
        EXPECT_EQ(kyProcess::ExecUtf8(row.program, row.arguments, "", false, UINT_MAX, &error),
                  row.exitCode);
        EXPECT_EQ(error, row.exitCode != 0 ? "process return an error" : "");
        EXPECT_EQ(kyProcess::StartDetachedUtf8(row.program, row.arguments), row.isStarted);
    }
    ::setenv("PATH", "/usr/bin:/bin", 1);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
}

// Rests on the 10 ms of a start, which the sanitizers' programs do not keep.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Process, TakesAnEarlySuicideForAFailedStartAndALateFailureForACrash)
{
    bool hasFailed = false;
    for (int i = 0; i < 1000 && !hasFailed; ++i) {
        ASSERT_TRUE(process.startProcess("sh", {"-c", "kill -USR1 $$"}));
        ASSERT_TRUE(process.waitForFinished(UINT_MAX));
        hasFailed = process.hasFailedToStart();
        EXPECT_EQ(process.exitCode(), hasFailed ? 0 : SIGUSR1);
    }
    EXPECT_TRUE(hasFailed);
    ExpectChildPasses([&] {
        MakeSearchLong();
        ASSERT_TRUE(process.startProcess("no such program", {}));
        EXPECT_TRUE(!process.hasFailedToStart() && process.hasCrashed());
        EXPECT_EQ(process.exitCode(), SIGUSR1);
    });
}
#endif

TEST_F(Process, OutlivesAKilledIntermediateChild)
{
    const char* const killer = R"(while test -e /proc/$0; do
        read children </proc/$0/task/$0/children
        for child in $children; do
            grandchild=
            read grandchild </proc/$child/task/$child/children
            test "$grandchild" && kill -9 $child
        done
    done 2>/dev/null)";
    ExpectChildPasses([&] {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        ASSERT_TRUE(process.startProcess("sh", {"-c", killer, std::to_string(::getpid())}));
        MakeSearchLong();
        int status = 0;
        while (::waitpid(-1, &status, WNOHANG) <= 0)
            kyProcess::StartDetachedUtf8("no such program", {});
        EXPECT_EQ(status, SIGUSR1) << "its stack was taken from the orphan";
        process.killProcess();
    });
}

TEST_F(Process, NoticesEveryMissingProgramBesideBusyThreads)
{
    std::atomic<bool> isDone = false;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&isDone] {
            while (!isDone)
                EXPECT_EQ(kyProcess::ExecUtf8("true", {"\u00e4"}, "", false, UINT_MAX), 0);
        });
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(process.startProcess("/no such program", {}));
        EXPECT_TRUE(process.hasFailedToStart());
        EXPECT_FALSE(kyProcess::StartDetachedUtf8("no such program", {}));
    }
    isDone = true;
    threads.clear();
}

TEST_F(Process, GivesTheProgramTheSignalsOfTheHostAndNothingElseOfOurs)
{
    const std::string text = PrintedBy([&] {
        ky::exception::impl::UnregisterSigWatcher();
        for (int signal = 1; signal <= SIGSYS; ++signal)
            std::signal(signal, signal <= SIGINT ? SIG_IGN : SIG_DFL);
        std::signal(SIGUSR2, [](int) {});
        ky::exception::impl::RegisterSigWatcher();
        std::signal(SIGINT, [](int) {});  // as the console catcher does
        sigset_t blocked;
        ::sigemptyset(&blocked);
        ::sigaddset(&blocked, SIGWINCH);
        ::pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
        static_cast<void>(std::atexit([] { static_cast<void>(std::puts("exit handler")); }));
        static_cast<void>(std::fputs("buffered\n", stdout));
        ky::kyLog::Instance()->installFileHandlerUtf8(folder.path("our log"));
        EXPECT_TRUE(process.startProcess("sleep", {"1000"}));

        const std::string ours = "ls -l /proc/self/fd | grep -c -e 'our log' -e pidfd";
        kyProcess::ExecUtf8("sh", {"-c", ours}, "", false, UINT_MAX);
        // A shell changes its mask.
        const Words words = {"Sig[BI]", "/proc/self/status"};
        kyProcess::ExecUtf8("grep", words, "", false, UINT_MAX);
        LibraryThread([&] {  // blocks SIGUSR1
            EXPECT_FALSE(kyProcess::StartDetachedUtf8("no such program", {}));
            return kyProcess::ExecUtf8("grep", words, "", false, UINT_MAX);
        });
        EXPECT_TRUE(kyProcess::StartDetachedUtf8("grep", words));
        process.killProcess();
    });
    Words lines = ky::test::Lines(text);
    std::ranges::sort(lines);
    const std::string mask = "SigBlk:\t0000000008000000";
    const std::string ignored = "SigIgn:\t0000000000000003";
    EXPECT_EQ(lines, (Words{"0", mask, mask, mask, ignored, ignored, ignored, "buffered"}));
}

TEST_F(Process, MergesEnvironmentsByNameAndPassesEveryArgument)
{
    const struct {
        Words own, set;
        bool isMerged;
        Words expected;
    } rows[] = {
        {{"A=1", "B=\xff"}, {}, true, {"A=1", "B=\xff"}},
        {{"A=1"}, {"C=3", "C=4", "word"}, false, {"C=3", "C=4", "word"}},
        {{"A=1", "AB=3"}, {"Z=9", "A=4", "A=", "C=6=7"}, true, {"A=", "AB=3", "Z=9", "C=6=7"}},
        {{"word", "A=1"}, {"other", "A=\xff", "word=2"}, true, {"word", "A=1", "other", "word=2"}},
    };
    for (const auto& row : rows) {
        const std::string printed = PrintedBy([&] {
            std::vector<char*> own;
            for (const std::string& entry : row.own)
                own.push_back(const_cast<char*>(entry.c_str()));
            own.push_back(nullptr);
            environ = own.data();
            process.setProcessEnvironmentUtf8(row.set, row.isMerged);
            process.startProcess("/usr/bin/env", {});
        });
        EXPECT_EQ(ky::test::Lines(printed), row.expected);
    }
    const Words words = {"[%s]", "a b", "", {"x\0y", 3}, "bad \xff", "*"};
    EXPECT_EQ(PrintedBy([&] { process.startProcess("printf", words); }), "[a b][][x][][*]");
}

TEST_F(Process, GivesTheProgramAnAbsoluteNiceValue)
{
    if (::getpriority(PRIO_PROCESS, 0) != 0)
        GTEST_SKIP() << "not everybody may go back to 0";
    const std::string printed = PrintedBy([&] {
        for (const auto priority : {kyProcess::Low, kyProcess::Low, kyProcess::Inherit,
                                    kyProcess::Normal, kyProcess::High}) {
            process.startProcess("nice", {}, false, priority);
            process.waitForFinished(UINT_MAX);
            ::setpriority(PRIO_PROCESS, 0, 1);
        }
    });
    // The unprivileged cannot go below their own.
    EXPECT_TRUE(printed == "1\n1\n1\n0\n-1\n" || printed == "1\n1\n1\n1\n1\n") << printed;
}

TEST_F(Process, ResolvesTheProgramAgainstTheWorkingDirectory)
{
    const std::string program = folder.write("own", "echo \"$0 $PWD\"");
    fs::permissions(program, fs::perms::owner_all);
    process.setWorkingDirectory(folder.path(""));
    const std::string printed = PrintedBy([&] {
        for (const bool isResolved : {false, true}) {
            process.startProcess("own", {}, isResolved);
            EXPECT_EQ(process.hasFailedToStart(), !isResolved);
            process.waitForFinished(UINT_MAX);
        }
        EXPECT_TRUE(kyProcess::StartDetachedUtf8("own", {}, folder.path(""), true));
    });
    const std::string line = program + " " + fs::path(program).parent_path().string() + "\n";
    EXPECT_EQ(printed, line + line);
}

TEST_F(Process, WarnsOnceOfAWorkingDirectoryThatItCannotEnter)
{
    const Words lines = ky::test::Lines(
        PrintedBy([&] { kyProcess::ExecUtf8("pwd", {}, "/\xff", false, UINT_MAX); }));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], fs::current_path());
    EXPECT_TRUE(lines[1].starts_with("WARNING ") &&
                lines[1].ends_with(" : Beware, could not change current working directory in "
                                   "startProcess /\xff"))
        << lines[1];
}

#include "ky/kyProcess.h"

#include "ky/kyException.h"
#include "ky/kyThread.h"

#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <linux/sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>

namespace fs = std::filesystem;
using ky::kyProcess;
using ky::test::ExpectChildPasses;
using ky::test::RunInChild;
using Words = std::vector<std::string>;

namespace {

struct Process : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    kyProcess process;
};

using FullProcess = ky::test::FullLibrary;

/// A pipe whose writing end is a file for programs that are started, "/dev/fd/N".
class Output {
public:
    Output() { EXPECT_EQ(::pipe2(mEnds, 0), 0); }
    std::string file() const { return "/dev/fd/" + std::to_string(mEnds[1]); }
    /// Waits until everybody who could write has ended.
    std::string take()
    {
        ::close(mEnds[1]);
        std::string text;
        char c = 0;
        while (::read(mEnds[0], &c, 1) == 1)
            text += c;
        ::close(mEnds[0]);
        return text;
    }

private:
    int mEnds[2] = {-1, -1};
};

bool HasNoChild()
{
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

class LibraryThread : public ky::kyThread {
public:
    explicit LibraryThread(std::function<void()> body) : mBody(std::move(body))
    {
        startLibraryThread("test");
        waitThread(INT_MAX);
    }

private:
    int run() override
    {
        mBody();
        return 0;
    }
    const std::function<void()> mBody;
};

std::chrono::milliseconds TimeOf(const std::function<void()>& body)
{
    const auto begin = std::chrono::steady_clock::now();
    body();
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

/// A process of that number, which does nothing. -1 where we may not choose.
pid_t ForkWithNumber(pid_t number)
{
    clone_args arguments = {};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
    arguments.set_tid_size = 1;
    const auto child = static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof(arguments)));
    while (child == 0)
        ::pause();
    return child;
}

}  // namespace

TEST_F(Process, TellsHowAProgramHasEndedOrThatItDidNotStart)
{
    const std::string script = folder.write("script", "exit 5");
    const std::string secret = folder.write("secret", "exit 5");
    fs::permissions(script, fs::perms::owner_all);
    const std::string tooLong = ":/" + std::string(PATH_MAX, 'x');
    ::setenv("PATH",
             (folder.path("none") + tooLong + ":" + folder.path("") + ":/usr/bin:/bin").c_str(), 1);
    EXPECT_EQ(process.getState(), kyProcess::NotStarted);
    EXPECT_TRUE(process.hasFailedToStart());
    EXPECT_TRUE(process.waitForFinished(0));

    const char* const failure = "process return an error";
    const struct Row {
        std::string program;
        Words arguments;
        bool isStarted, hasCrashed;
        int exitCode;
        const char* error;
    } rows[] = {
        {"true", {}, true, false, 0, ""},
        {"sh", {"-c", "exit 3"}, true, false, 3, failure},
        {"sh", {"-c", "ulimit -c 0; sleep 0.02; kill -SEGV $$"}, true, true, SIGSEGV, failure},
        {"script", {}, true, false, 5, failure},
        {script, {}, true, false, 5, failure},
        {"secret", {}, false, false, 0, ""},
        {secret, {}, false, false, 0, ""},
        {folder.path(""), {}, false, false, 0, ""},
        {"no such program", {}, false, false, 0, ""},
        {"", {}, false, false, 0, ""},
        {std::string("true\0", 5), {}, false, false, 0, ""},
        {"/bin/true/true", {}, false, false, 0, ""},
        {std::string(300, 'x'), {}, false, false, 0, ""},
        {"tr\xff", {}, false, false, 0, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.program);
        std::string error = "old";
        ASSERT_TRUE(process.startProcess(row.program, row.arguments));
        EXPECT_TRUE(process.waitForFinished(UINT_MAX));
        EXPECT_EQ(process.getState(), kyProcess::Finished);
        EXPECT_EQ(process.hasFailedToStart(), !row.isStarted);
        EXPECT_EQ(process.hasCrashed(), row.hasCrashed);
        EXPECT_EQ(process.exitCode(), row.exitCode);
        EXPECT_EQ(process.getProgramUtf8(), row.program);
        EXPECT_EQ(kyProcess::ExecUtf8(row.program, row.arguments, "", false, UINT_MAX, &error),
                  row.exitCode);
        EXPECT_EQ(error, row.error);
        EXPECT_EQ(kyProcess::StartDetachedUtf8(row.program, row.arguments), row.isStarted);
    }
    ::unsetenv("PATH");
    EXPECT_EQ(kyProcess::ExecUtf8("sh", {"-c", "exit 3"}, "", false, UINT_MAX), 3);
    ::setenv("PATH", "/usr/bin:/bin", 1);
    EXPECT_TRUE(HasNoChild());
    EXPECT_TRUE(process.resetState());
    EXPECT_EQ(process.getState(), kyProcess::NotStarted);
    EXPECT_TRUE(process.hasFailedToStart());
}

TEST_F(Process, RefusesChangesWhileItRunsAndEndsWhenTold)
{
    process.setWorkingDirectory("/");
    ASSERT_TRUE(process.startProcess("sleep", {"1000"}));
    EXPECT_FALSE(process.hasFailedToStart());
    EXPECT_FALSE(process.setWorkingDirectory("/tmp"));
    EXPECT_FALSE(process.setProcessEnvironmentUtf8({"A=B"}, true));
    EXPECT_FALSE(process.resetState());
    EXPECT_FALSE(process.startProcess("true", {}));
    EXPECT_EQ(process.getWorkingDirectoryUtf8(), "/");
    EXPECT_EQ(process.getArgumentsUtf8(), Words{"1000"});
    EXPECT_EQ(process.exitCode(), 0);
    for (const unsigned int timeoutMs : {0u, 30u})
        EXPECT_GE(TimeOf([&] { EXPECT_FALSE(process.waitForFinished(timeoutMs)); }).count(),
                  timeoutMs);
    process.terminateProcess();
    EXPECT_TRUE(process.waitForFinished(UINT_MAX));
    EXPECT_TRUE(process.hasCrashed());
    EXPECT_EQ(process.exitCode(), SIGTERM);
    process.clearProcess();
    EXPECT_EQ(process.getArgumentsUtf8(), Words{});

    std::string error;
    EXPECT_EQ(kyProcess::ExecUtf8("sleep", {"1000"}, "", false, 0, &error), -2);
    EXPECT_EQ(error, "timeout");
    EXPECT_TRUE(HasNoChild());
}

TEST_F(Process, NeverSignalsANumberThatItHasCollected)
{
    ASSERT_TRUE(process.startProcess("true", {}));
    ASSERT_TRUE(process.waitForFinished(UINT_MAX));
    const pid_t stranger = ForkWithNumber(process.getPid());
    if (stranger == -1)
        GTEST_SKIP() << "only the privileged may choose the number of a process";
    process.killProcess();
    process.terminateProcess();
    EXPECT_EQ(::waitpid(stranger, nullptr, WNOHANG), 0) << "the stranger has ended";
    ::kill(stranger, SIGKILL);
    ::waitpid(stranger, nullptr, 0);
}

TEST_F(Process, TellsACrashWhenSomebodyElseCollectsTheChild)
{
    ExpectChildPasses([] {
        std::signal(SIGCHLD, SIG_IGN);
        std::string error;
        EXPECT_EQ(kyProcess::ExecUtf8("true", {}, "", false, UINT_MAX, &error), -3);
        EXPECT_EQ(error, "process has crashed");
        std::signal(SIGCHLD, SIG_DFL);
        // No program can be started any more.
        EXPECT_TRUE(::geteuid() != 0 || ::setresuid(65534, 65534, 65534) == 0);
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_NPROC, &none);
        EXPECT_EQ(kyProcess::ExecUtf8("true", {}, "", false, UINT_MAX, &error), -1);
        EXPECT_EQ(error, "Fail to start process");
    });
}

TEST_F(Process, OutlivesAKilledIntermediateChild)
{
    const auto children = [](pid_t of) {
        const std::string number = std::to_string(of);
        return ky::test::Lines(
            ky::test::Content("/proc/" + number + "/task/" + number + "/children"));
    };
    std::string path;
    for (int i = 0; i < 100000; ++i)
        path += "/none:";
    ExpectChildPasses([&] {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        ::setenv("PATH", path.c_str(), 1);
        const pid_t parent = ::getpid();
        const pid_t killer = ::fork();
        while (killer == 0) {
            for (const std::string& line : children(parent)) {
                std::istringstream numbers(line);
                for (pid_t child = 0; numbers >> child;)
                    if (child != ::getpid() && !children(child).empty())
                        ::kill(child, SIGKILL);
            }
        }
        pid_t orphan = 0;
        int status = 0;
        while ((orphan = ::waitpid(-1, &status, WNOHANG)) == 0)
            kyProcess::StartDetachedUtf8("no such program", {});
        EXPECT_NE(orphan, killer);
        EXPECT_EQ(status, SIGUSR1) << "its stack was taken from it";
        ::kill(killer, SIGKILL);
        EXPECT_EQ(::waitpid(killer, nullptr, 0), killer);
    });
}

TEST_F(Process, StaysPromptWhenTheHostClosesItsDescriptor)
{
    ExpectChildPasses([&] {
        ASSERT_TRUE(process.startProcess("sleep", {"1000"}));
        ::close_range(3, ~0U, 0);
        EXPECT_GE(TimeOf([&] { EXPECT_FALSE(process.waitForFinished(50)); }).count(), 50);
        process.killProcess();
        EXPECT_TRUE(process.waitForFinished(UINT_MAX));
    });
}

TEST_F(Process, WaitsItsTimeThroughSignalsWithAndWithoutADescriptor)
{
    ExpectChildPasses([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGALRM, &action, nullptr);
        const itimerval often = {{0, 1000}, {0, 1000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
        const rlimit few = {64, 64};
        ::setrlimit(RLIMIT_NOFILE, &few);
        for (const bool hasDescriptor : {true, false}) {
            SCOPED_TRACE(hasDescriptor);
            while (!hasDescriptor && ::open("/dev/null", O_RDONLY | O_CLOEXEC) != -1) {
            }
            EXPECT_GE(TimeOf([&] { process.startProcess("sleep", {"1000"}); }).count(), 10);
            EXPECT_GE(TimeOf([&] { EXPECT_FALSE(process.waitForFinished(120)); }).count(), 120);
            process.killProcess();
            EXPECT_TRUE(process.waitForFinished(UINT_MAX));
            EXPECT_EQ(process.exitCode(), SIGKILL);
            process.startProcess("no such program", {});
            EXPECT_TRUE(process.hasFailedToStart());
            EXPECT_FALSE(process.hasCrashed());
            // Its command line cannot be read without a descriptor.
            kyProcess parent;
            EXPECT_TRUE(kyProcess::GetParentProcess(parent));
            EXPECT_EQ(parent.getPid(), ::getppid());
            EXPECT_EQ(parent.getState(), kyProcess::Running);
            EXPECT_EQ(parent.getProgramUtf8().empty(), !hasDescriptor);
        }
    });
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
        EXPECT_EQ(process.hasCrashed(), !hasFailed);
    }
    EXPECT_TRUE(hasFailed);

    std::string path;
    for (int i = 0; i < 100000; ++i)
        path += "/none:";
    ExpectChildPasses([&] {
        ::setenv("PATH", path.c_str(), 1);
        process.setProcessEnvironmentUtf8({"A=B"}, false);
        ASSERT_TRUE(process.startProcess("no such program", {}));
        EXPECT_FALSE(process.hasFailedToStart());
        EXPECT_TRUE(process.hasCrashed());
        EXPECT_EQ(process.exitCode(), SIGUSR1);
    });
}
#endif

TEST_F(FullProcess, LaunchesFromManyThreadsAndNoticesEveryMissingProgramBesideBusyOnes)
{
    std::atomic<int> launching = 16;
    std::atomic<int> good = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i)
        threads.emplace_back([&] {
            for (int k = 0; k < 10; ++k)
                good += kyProcess::ExecUtf8("true", {"\u00e4"}, "", false, UINT_MAX) == 0;
            --launching;
        });
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            while (launching != 0) {
                kyProcess own;
                own.setProcessEnvironmentUtf8({std::string(3000, 'x') + "=\u00e4"}, true);
                kyProcess::GetCurrentProcess(own);
                ky::kyLogObject(ky::kyLog::Debug) << own.getProgramUtf8();
            }
        });
    ++launching;
    LibraryThread([] {  // blocks SIGUSR1, and is guarded
        for (int i = 0; i < 100; ++i) {
            kyProcess process;
            EXPECT_TRUE(process.startProcess("/no such program", {}));
            EXPECT_TRUE(process.hasFailedToStart());
            EXPECT_FALSE(kyProcess::StartDetachedUtf8("no such program", {}));
        }
    });
    --launching;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 160);
    EXPECT_TRUE(HasNoChild());
}

TEST_F(Process, GivesTheProgramTheSignalsOfTheHostAndNoDescriptorOfOurs)
{
    ExpectChildPasses([&] {
        ky::exception::impl::UnregisterSigWatcher();
        std::signal(SIGHUP, SIG_IGN);
        std::signal(SIGINT, SIG_IGN);
        std::signal(SIGPIPE, SIG_DFL);
        std::signal(SIGUSR2, [](int) {});
        ky::exception::impl::RegisterSigWatcher();
        std::signal(SIGINT, [](int) {});  // as the console catcher does
        sigset_t blocked;
        ::sigemptyset(&blocked);
        ::sigaddset(&blocked, SIGWINCH);
        ::pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
        ky::kyLog::Instance()->installFileHandlerUtf8(folder.path("our log"));
        kyProcess other;
        EXPECT_TRUE(other.startProcess("sleep", {"1000"}));

        const auto check = [](const std::function<bool(const Words&)>& start) {
            Output output;
            // A shell changes its mask.
            EXPECT_TRUE(
                start({"/Sig(Blk|Ign)/ {print $1 $2 >\"" + output.file() +
                           "\"} END {system(\"ls -l /proc/self/fd >" + output.file() + "\")}",
                       "/proc/self/status"}));
            const std::string text = output.take();
            const Words lines = ky::test::Lines(text);
            ASSERT_GT(lines.size(), 2u);
            EXPECT_EQ(lines[0], "SigBlk:0000000008000000");
            const unsigned long ignored = std::stoul(lines[1].substr(7), nullptr, 16);
            EXPECT_EQ(ignored & 0x1003, 0x3u) << "SIGHUP, SIGINT and not SIGPIPE";
            EXPECT_EQ(text.find("our log"), std::string::npos);
            EXPECT_EQ(text.find("pidfd"), std::string::npos);
        };
        kyProcess attached;
        const auto attach = [&](const Words& words) { return attached.startProcess("awk", words); };
        const auto detach = [](const Words& words) {
            return kyProcess::StartDetachedUtf8("awk", words);
        };
        check(attach);
        check(detach);
        EXPECT_TRUE(attached.waitForFinished(UINT_MAX));
        LibraryThread([&] { check(attach); });
        EXPECT_TRUE(attached.waitForFinished(UINT_MAX));
        other.killProcess();
        EXPECT_TRUE(other.waitForFinished(UINT_MAX));
    });
}

TEST_F(Process, LeavesBufferedOutputExitHandlersAndCrashReportsToTheParent)
{
    const ky::test::ChildResult result = RunInChild([&] {
        ky::exception::impl::RegisterSigWatcher();
        static_cast<void>(std::atexit([] { static_cast<void>(std::puts("handler")); }));
        static_cast<void>(std::fputs("once", stdout));
        process.startProcess("no such program", {});
        kyProcess::StartDetachedUtf8("no such program", {});
        kyProcess::StartDetachedUtf8("true", {});
    });
    EXPECT_EQ(result.out, "once");
}

TEST_F(Process, MergesEnvironmentsByNameAndPassesEveryArgument)
{
    struct Row {
        Words own, set;
        bool isMerged;
        Words expected;
    };
    const Row rows[] = {
        {{"A=1", "B=\xff"}, {}, true, {"A=1", "B=\xff"}},
        {{"A=1"}, {"C=3", "C=4", "word"}, false, {"C=3", "C=4", "word"}},
        {{"A=1", "C=3"}, {"Z=9", "C=4", "Y=8"}, true, {"A=1", "C=4", "Z=9", "Y=8"}},
        {{"A=1", "A=2", "AB=3"}, {"A=4", "A=", "C=5", "C=6=7"}, true, {"A=", "AB=3", "C=6=7"}},
        {{"word", "A=1"}, {"other", "A=\xff", "word=2"}, true, {"word", "A=1", "other", "word=2"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        const ky::test::ChildResult result = RunInChild([&] {
            std::vector<char*> own;
            for (const std::string& entry : row.own)
                own.push_back(const_cast<char*>(entry.c_str()));
            own.push_back(nullptr);
            environ = own.data();
            process.setProcessEnvironmentUtf8(row.set, row.isMerged);
            process.startProcess("/usr/bin/env", {});
            process.waitForFinished(UINT_MAX);
        });
        EXPECT_EQ(ky::test::Lines(result.out), row.expected) << result.err;
    }
    Output output;
    const std::string script = "printf '[%s]' \"$@\" >" + output.file();
    process.startProcess("sh", {"-c", script, "sh", "a b", "", {"x\0y", 3}, "bad \xff", "*"});
    EXPECT_EQ(output.take(), "[a b][][x][][*]");
    process.waitForFinished(UINT_MAX);
}

TEST_F(Process, ResolvesTheProgramAgainstTheWorkingDirectory)
{
    Output output;
    const std::string program = folder.write("own", "echo \"$0 $PWD\" >" + output.file());
    fs::permissions(program, fs::perms::owner_all);
    fs::create_directory(folder.path("true"));
    process.setWorkingDirectory(folder.path(""));
    for (const bool isResolved : {false, true}) {
        process.startProcess("own", {}, isResolved);
        EXPECT_EQ(process.hasFailedToStart(), !isResolved);
        // A folder is found, and then does not start.
        process.waitForFinished(UINT_MAX);
        process.startProcess("true", {}, isResolved);
        EXPECT_EQ(process.hasFailedToStart(), isResolved);
        process.waitForFinished(UINT_MAX);
    }
    EXPECT_EQ(kyProcess::ExecUtf8("own", {}, folder.path(""), true, UINT_MAX), 0);
    EXPECT_TRUE(kyProcess::StartDetachedUtf8("own", {}, folder.path(""), true));
    const std::string line = program + " " + fs::path(program).parent_path().string() + "\n";
    EXPECT_EQ(output.take(), line + line + line);
}

TEST_F(Process, WarnsOnceOfAWorkingDirectoryThatItCannotEnter)
{
    for (const std::string directory : {"/none", "/\xff"}) {
        const ky::test::ChildResult result = RunInChild([&] {
            kyProcess::ExecUtf8("pwd", {}, directory, false, UINT_MAX);
            EXPECT_TRUE(kyProcess::StartDetachedUtf8("true", {}, directory));
        });
        const Words lines = ky::test::Lines(result.out);
        ASSERT_EQ(lines.size(), 3u) << result.out;
        EXPECT_EQ(lines[0], fs::current_path());
        const std::string text = "Beware, could not change current working directory in ";
        for (const std::size_t i : {1, 2})
            EXPECT_TRUE(lines[i].find("WARNING ") == 0 &&
                        lines[i].ends_with(" : " + text + "startProcess " + directory))
                << lines[i];
    }
}

TEST_F(Process, SetsAbsoluteNiceValues)
{
    const bool isPrivileged =
        RunInChild([] { ::_exit(::setpriority(PRIO_PROCESS, 0, -1)); }).exitCode == 0;
    const struct {
        unsigned int priority;
        const char* name;
        const char* nice;
    } rows[] = {{0, "Low", isPrivileged ? "1\n" : "5\n"},
                {1, "Normal", isPrivileged ? "0\n" : "5\n"},
                {2, "High", isPrivileged ? "-1\n" : "5\n"},
                {3, "Inherit", "5\n"},
                {7, "Unknown", "5\n"}};
    for (const auto& row : rows) {
        const auto priority = static_cast<kyProcess::ProcessPriority>(row.priority);
        EXPECT_EQ(kyProcess::ProcessPriorityToString(priority), row.name);
        const ky::test::ChildResult result = RunInChild([&] {
            ::setpriority(PRIO_PROCESS, 0, 5);
            process.startProcess("nice", {}, false, priority);
            process.waitForFinished(UINT_MAX);
        });
        EXPECT_EQ(result.out, row.nice) << row.name;
    }
}

TEST_F(Process, StartsACommandLineInTheFolderOfItsProgram)
{
    Output output;
    const std::string program = folder.write("a program", "echo \"$PWD|$1|$2\" >" + output.file());
    fs::permissions(program, fs::perms::owner_all);
    EXPECT_TRUE(kyProcess::StartDetachedUtf8("\"" + program + "\" one\t\"t \\\"wo\\\"\""));
    EXPECT_FALSE(kyProcess::StartDetachedUtf8("true")) << "PATH was searched";
    EXPECT_TRUE(HasNoChild());
    EXPECT_EQ(output.take(), fs::path(program).parent_path().string() + "|one|t \"wo\"\n");
}

TEST_F(Process, SplitsCommandLines)
{
    const struct {
        std::string line;
        Words words;  // none where it fails
        bool isReported;
    } rows[] = {
        {"prog a  b\t c ", {"prog", "a", "b", "c"}, false},
        {" \"my prog\" \"\" 'x y'", {"my prog", "", "'x", "y'"}, false},
        {"p a\nb", {"p", "a\nb"}, false},
        {"\"p\"a\"b\"\"c\"", {"p", "a\"b"}, true},
        {"\"p\"a \"b\"\"c\"", {"p", "a", "b", "c"}, false},
        {R"(p "a \"b\" c\d\\" e\f)", {"p", "a \"b\" c\\d\\\" e\\f"}, true},
        {R"(p "a\\"b" e\f)", {"p", "a\\\"b", "e\\f"}, false},
        {"p \"a", {}, true},
        {"p a\"b", {}, true},
        {"p a\\\"b", {}, true},
        {"", {}, false},
        {" \t", {}, false},
        {"\"\" a", {}, false},
    };
    ky::test::CaughtStream output(std::cout);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        std::string program = "old";
        Words words = {"old"};
        const bool isGood = !row.words.empty() && !row.isReported;
        EXPECT_EQ(kyProcess::SplitCommandLine(row.line, program, words), isGood);
        const std::string message =
            " : Fail to split command line : '" + row.line + "' : Bad command line\n";
        const std::string text = output.take();
        EXPECT_EQ(text.find("CRITICAL ") == 0, row.isReported) << text;
        EXPECT_EQ(text.find(message) != std::string::npos, row.isReported) << text;
        words.insert(words.begin(), program);
        EXPECT_EQ(words, isGood ? row.words : Words{""});
    }
}

TEST_F(Process, DescribesItselfAndItsParent)
{
    const std::string exe = "/proc/self/exe";
    const std::string filter = "--gtest_filter=Process.DescribesItselfAndItsParent";
    // The 4096 bytes that are read end within a character of the last argument.
    const std::size_t seen = 4096 - (exe + filter).size() - 8;
    std::string last((seen - 2) % 3, 'x');
    while (last.size() < 5000)
        last += "\u20ac";
    const char* const parent = std::getenv("KY_TEST_PARENT");
    if (parent == nullptr) {
        const std::string number = std::to_string(::getpid());
        const ky::test::ChildResult result =
            ky::test::RunCommand({exe, filter, "", "a b", "", last}, {}, [&] {
                ::setenv("KY_TEST_PARENT", number.c_str(), 1);
                ::setenv("LC_ALL", "C.UTF-8", 1);
            });
        EXPECT_EQ(result.exitCode, 0) << result.out;
        return;
    }
    ASSERT_TRUE(kyProcess::GetCurrentProcess(process));
    EXPECT_EQ(process.getProgramUtf8(), fs::read_symlink("/proc/self/exe"));
    EXPECT_EQ(process.getWorkingDirectoryUtf8(), fs::current_path());
    EXPECT_EQ(process.getPid(), ::getpid());
    EXPECT_FALSE(process.hasFailedToStart());
    EXPECT_FALSE(process.waitForFinished(UINT_MAX));
    EXPECT_FALSE(process.setWorkingDirectory("/"));
    EXPECT_EQ(process.getArgumentsUtf8(), (Words{filter, "", "a b", "", last.substr(0, seen - 2)}));
    Words environment;
    process.getProcessEnvironmentUtf8(environment);
    EXPECT_NE(
        std::find(environment.begin(), environment.end(), std::string("KY_TEST_PARENT=") + parent),
        environment.end());
    unsigned long resident = 0;
    unsigned long peak = 0;
    EXPECT_TRUE(process.getMemoryStatistics(resident, peak));
    EXPECT_TRUE(resident > 0 && resident < peak && resident % 1024 == 0) << resident;

    ASSERT_TRUE(kyProcess::GetParentProcess(process));
    EXPECT_EQ(std::to_string(process.getPid()), parent);
    EXPECT_FALSE(process.waitForFinished(0));
    EXPECT_NE(process.getProgramUtf8(), "");
}

TEST_F(Process, NoticesTheEndOfTheParent)
{
    Output fromGrandchild;
    ExpectChildPasses([&] {
        int goOn[2];
        ASSERT_EQ(::pipe2(goOn, O_CLOEXEC), 0);
        if (::fork() != 0) {
            char ready = 0;
            EXPECT_EQ(::read(goOn[0], &ready, 1), 1);
            return;
        }
        bool isGood = kyProcess::GetParentProcess(process) &&
                      process.getState() == kyProcess::Running && ::write(goOn[1], "r", 1) == 1;
        isGood = isGood && process.waitForFinished(UINT_MAX);
        const int fd = ::open(fromGrandchild.file().c_str(), O_WRONLY | O_CLOEXEC);
        ::_exit(isGood && ::write(fd, "y", 1) == 1 ? 0 : 1);
    });
    EXPECT_EQ(fromGrandchild.take(), "y");
}

TEST_F(Process, TellsTheMemoryOfAChild)
{
    unsigned long resident = 1;
    unsigned long peak = 1;
    EXPECT_FALSE(process.getMemoryStatistics(resident, peak));
    EXPECT_EQ(resident + peak, 0u);
    ASSERT_TRUE(process.startProcess("sleep", {"1000"}));
    EXPECT_TRUE(process.getMemoryStatistics(resident, peak));
    EXPECT_TRUE(resident > 0 && resident < peak) << resident << " " << peak;
    process.killProcess();
    siginfo_t info = {};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(process.getPid()), &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(process.getMemoryStatistics(resident, peak));
    EXPECT_EQ(resident + peak, 0u);
    EXPECT_EQ(process.exitCode(), SIGKILL);
    EXPECT_FALSE(process.getMemoryStatistics(resident, peak));
}

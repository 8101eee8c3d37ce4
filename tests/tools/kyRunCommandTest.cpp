#include "support/Child.h"
#include "support/FailingCall.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <ctime>

using ky::test::ChildResult;
using ky::test::TemporaryFolder;

namespace {

using Words = std::vector<std::string>;

/// `ky run options -- command`, in `folder`, as a process that would not learn how children end.
ChildResult RunSupervised(
    const TemporaryFolder& folder, const Words& options, const Words& command,
    const std::function<void()>& prepare = [] {})
{
    Words words = {KY_COMMAND, "run"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), command.begin(), command.end());
    return ky::test::RunCommand(words, "", [&] {
        static_cast<void>(::chdir(folder.path("").c_str()));
        ::signal(SIGPIPE, SIG_DFL);  // which tests of the whole library ignore
        ::signal(SIGCHLD, SIG_IGN);
        prepare();
    });
}

Words Shell(const std::string& script)
{
    return {"--", "sh", "-c", script, KY_COMMAND};
}

/// One log message per line, as regular expressions, whatever the prefixes.
void ExpectLog(const TemporaryFolder& folder, const Words& messages)
{
    const Words lines = ky::test::Lines(ky::test::Content(folder.path("log")));
    ASSERT_EQ(lines.size(), messages.size());
    for (std::size_t i = 0; i < lines.size(); ++i)
        EXPECT_TRUE(
            std::regex_match(lines[i], std::regex("[A-Z]*\\(run\\) PID .* : " + messages[i])))
            << lines[i];
}

}  // namespace

TEST(RunCommand, GivesTheOutcomeOfItsCommand)
{
    const TemporaryFolder folder;
    const struct {
        Words options;
        Words command;
        int exitCode;
        std::string out = "";
    } rows[] = {
        {{}, Shell("exit 7"), 7},
        {{"--timeout", "1h 30m"}, Shell("kill -9 $$"), 128 + 9},
        {{}, {"--", "no-such-command"}, 127},
        {{}, {"--", "/etc"}, 127},
        {{}, {"--", "echo", "[a,b]", "--x=", "--", "-h", ""}, 0, "[a,b] --x= -- -h \n"},
        {{"-e", "A=1", "--env", "B=", "-d", "/", "-p", "low"},
         Shell("echo $A-$B-$(nice); pwd; grep Sig[BI] /proc/self/status"),
         0,
         "1--1\n/\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"},
        {{}, {}, 2},
        {{}, {"--"}, 2},
        {{"-t", "0"}, Shell(""), 2},
        {{"-t", "5x"}, Shell(""), 2},
        {{"-t", "1 2"}, Shell(""), 2},
        {{"-t", "1h?"}, Shell(""), 2},
        {{"-t", "9999999999999d"}, Shell(""), 2},
        {{"-m", "4096P"}, Shell(""), 2},
        {{"-m", "4095"}, Shell(""), 2},
        {{"-m", "G"}, Shell(""), 2},
        {{"-m", "1x"}, Shell(""), 2},
        {{"-m", "1.5 gIB"}, Shell(""), 0},
        {{"-e", "=x"}, Shell(""), 2},
        {{"-d", "/etc/passwd"}, Shell(""), 1},
        {{"-f", "/proc/log"}, Shell(""), 1},
    };
    for (const auto& row : rows) {
        const ChildResult result = RunSupervised(folder, row.options, row.command);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        if (row.exitCode != 2) {
            EXPECT_EQ(result.out, row.out) << result.err;
        }
    }
}

TEST(RunCommand, LogsStartAndEndAndHoldsTheLock)
{
    const TemporaryFolder folder;
    const ChildResult result = RunSupervised(
        folder, {"-l", "file", "-f", "log"},
        Shell("grep -c 'Lock from' file; \"$0\" run -l file -- echo both; exit $(($? + 2))"));
    EXPECT_EQ(result.exitCode, 1 + 2);
    EXPECT_EQ(result.out, "1\n");
    EXPECT_EQ(result.err.find("ky: Cannot lock file. Fail to acquire lock"), 0u) << result.err;
    EXPECT_FALSE(std::filesystem::exists(folder.path("file")));
    EXPECT_EQ(RunSupervised(folder, {"-f", "log"}, {"--", "no-such-command"}).exitCode, 127);
    ExpectLog(folder, {"Started sh -c 'grep .*' .* as process [0-9]+",
                       "Process [0-9]+ ended with exit code 3 after [0-9]+.*s, .*",
                       "Cannot start no-such-command"});
}

TEST(RunCommand, EndsAllThatRunsAtItsLimits)
{
    const TemporaryFolder folder;
    // The first ends when it is told to, the second does not, and in the third another process than
    // the shell is large.
    const struct {
        Words options;
        std::string script;
        int exitCode;
        std::string why;
    } rows[] = {
        {{"-t", "1"}, "trap 'exit 0' TERM; sleep 1000 & echo $!; wait", 124, "limit of 1s"},
        {{"--grace", "100ms"},
         "trap '' TERM; sleep 1000 & echo $!; kill -INT $PPID; wait",
         128 + 9,
         "ky: Not ended 100ms later, killing it\n"},
        {{"-m", "60M", "-f", "log"},
         "dd if=/dev/zero of=/dev/null bs=200M count=9999 & echo $!; wait",
         128 + 9,
         " is above the limit of 60MB, killing it\n"},
    };
    for (const auto& row : rows) {
        const ChildResult result = RunSupervised(folder, row.options, Shell(row.script));
        EXPECT_EQ(result.exitCode, row.exitCode) << row.script;
        EXPECT_NE(result.err.find(row.why), std::string::npos) << result.err;
        // Nothing, when the machine was too slow to start the shell in time.
        if (!result.out.empty()) {
            EXPECT_EQ(::kill(std::stoi(result.out), 0), -1) << "left behind";
        }
    }
    ExpectLog(folder, {"Started sh .*", "A resident size of .* is above .*",
                       "Process [0-9]+ ended by signal 9 \\(SIGKILL\\) after .*, largest resident "
                       "size [0-9.]+[MG]B \\(sampled every 100 ms\\)"});
}

TEST(RunCommand, GoesOnWhenItIsStuckOrPowerless)
{
    const TemporaryFolder folder;
    const Words options = {"-t", "100ms", "--grace", "100ms", "-f", "log"};
    ChildResult result = RunSupervised(folder, options, {"--", "sleep", "1000"}, [] {
        ::signal(SIGTERM, SIG_IGN);  // for the command, too
        // Nobody reads what it says.
        int full[2];
        ASSERT_EQ(::pipe2(full, O_NONBLOCK), 0);
        while (::write(full[1], "", 1) == 1) {
        }
        ::fcntl(full[1], F_SETFL, 0);
        ::dup2(full[1], STDERR_FILENO);
    });
    EXPECT_EQ(result.exitCode, 124);

    result = RunSupervised(folder, options, {"--", "sleep", "1000"},
                           [] { ky::test::LetCallFail(SYS_kill, EPERM); });
    EXPECT_EQ(result.exitCode, 124);
    const std::string log = ky::test::Content(folder.path("log"));
    const std::string mark = " as process ";
    ASSERT_NE(log.rfind(mark), std::string::npos) << log;
    EXPECT_EQ(::kill(std::stoi(log.substr(log.rfind(mark) + mark.size())), SIGKILL), 0)
        << "was to be left alone";

    result =
        RunSupervised(folder, {}, Shell(""), [] { ky::test::LetCallFail(SYS_clone3, EAGAIN); });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(ky::test::Contains(result.err, "ky: Cannot go on. System error : '(11) EAGAIN"))
        << result.err;

    const std::string start = "Started sleep 1000 as .*";
    const std::string over = "The time limit of 100ms is over, ending it";
    const std::string kills = "Not ended 100ms later, killing it";
    ExpectLog(folder, {start, over, kills, "Process [0-9]+ ended by signal 9 .*", start, over,
                       kills, "What is left may not be killed, leaving it",
                       "Process [0-9]+ was left running after .*"});
}

TEST(RunCommand, PassesBytesOnThatAreNoText)
{
    const TemporaryFolder folder;
    const std::string name = "\u00e9%41\xff";
    std::filesystem::create_directory(folder.path(name));
    const Words options = {"-e", "A=x", "-e", "A=" + name, "-d", name, "-f", "log"};
    const auto inPlainLocale = [] { ::setenv("LC_ALL", "C", 1); };
    ChildResult result = RunSupervised(
        folder, options,
        {"--", "sh", "-c", "printf '%s|' \"$@\" \"$A\" \"$LC_ALL\" \"${PWD##*/}\"; exit 3", "sh",
         name, "", "--", "a\nb"},
        inPlainLocale);
    EXPECT_EQ(result.exitCode, 3) << result.err;
    EXPECT_EQ(result.out, name + "||--|a\nb|" + name + "|C|" + name + "|");
    result = RunSupervised(folder, options, {"--", name}, inPlainLocale);
    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(result.err.find("ky: Cannot start " + name + ". System error : '(2) ENOENT "), 0u)
        << result.err;
    ExpectLog(folder, {"Started sh -c .* sh \u00e9%41\\? '' -- 'a\\?b' as process [0-9]+",
                       ".*code 3 .*", "Started \u00e9%41\\? as .*", ".*code 127 .*"});
}

TEST(RunCommand, EndsItsCommandWhenAskedAndPassesOtherSignalsOn)
{
    const TemporaryFolder folder;
    const auto askWith = [&](
                             const std::string& signals,
                             const std::function<void()>& prepare = [] {}) {
        std::string script =
            "trap 'exit 5' TERM; trap 'kill $!; exit 6' USR1; sleep 1000 & "
            "until grep -q sleep /proc/$!/comm; do :; done; ";
        for (const std::string& signal : ky::test::Lines(signals))
            script += "kill -" + signal + " $PPID; ";
        return RunSupervised(folder, {}, Shell(script + "wait"), prepare);
    };
    for (const std::string signal : {"INT", "TERM", "HUP", "QUIT"}) {
        const ChildResult result = askWith(signal);
        EXPECT_EQ(result.exitCode, 5) << signal;
        EXPECT_EQ(result.err, "ky: Asked by a signal to stop, ending it\n");
    }
    EXPECT_EQ(askWith("USR1").exitCode, 6);
    // Started in the background of a script, say.
    const ChildResult result = askWith("INT\nUSR1", [] { ::signal(SIGINT, SIG_IGN); });
    EXPECT_EQ(result.exitCode, 6);
    EXPECT_EQ(result.err, "");
}

TEST(RunCommand, EndsWithItsParent)
{
    const TemporaryFolder folder;
    // The command kills the parent of ky.
    const auto parent = ky::test::RunCommand(
        {"sh", "-c",
         "\"$0\" run --with-parent -f \"$1\" -- sh -c \"kill -9 $$; exec sleep 1000\" & wait",
         KY_COMMAND, folder.path("log")});
    EXPECT_EQ(parent.signal, SIGKILL);
    const timespec pause = {0, 1000000};
    while (ky::test::Content(folder.path("log")).find("ended by signal 15") == std::string::npos)
        ::nanosleep(&pause, nullptr);
    EXPECT_NE(ky::test::Content(folder.path("log")).find("The parent process has died, ending it"),
              std::string::npos);
}

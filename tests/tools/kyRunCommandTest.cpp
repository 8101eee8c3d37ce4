#include "tools/Shell.h"

#include "support/FailingCall.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

using ky::test::TemporaryFolder;

namespace {

/// The log without what differs from run to run.
const std::string sLog =
    "sed -E 's/ PID .* : /: /; s/process [0-9]+/process N/I; "
    "s/after [^,]*, .*/after T/' log";

}  // namespace

TEST(RunCommand, GivesTheOutcomeOfItsCommand)
{
    const TemporaryFolder folder;
    // With SIGCHLD ignored a process would not learn how its children end.
    ExpectShell(folder,
                {{"env --ignore-signal=CHLD ky run -- sh -c 'exit 7'", 7},
                 {"ky run --timeout '1h 30m' -- sh -c 'kill -9 $$'", 128 + 9},
                 {"ky run -- no-such-command", 127, "", {"ky: Cannot start no-such-command"}},
                 {"ky run -- /etc", 127, "", {"ky: Cannot start /etc"}},
                 {"ky run -- echo '[a,b]' --x= -- -h ''", 0, "[a,b] --x= -- -h \n"},
                 {"ky run -e A=1 --env B= -d / -p low -- "
                  "sh -c 'echo $A-$B-$(nice); pwd; grep Sig[BI] /proc/self/status'",
                  0, "1--1\n/\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"},
                 {"ky run -m '1.5 gIB' -- true"},
                 {"ky run -d /etc/passwd -- true", 1, "", {"ky: Cannot enter /etc/passwd. "}},
                 {"ky run -f /proc/log -- true", 1, "", {"ky: "}}});
    for (const std::string wrong :
         {"", "--", "-t 0 -- true", "-t 5x -- true", "-t '1 2' -- true", "-t '1h?' -- true",
          "-t 9999999999999d -- true", "-m 4096P -- true", "-m 4095 -- true", "-m G -- true",
          "-m 1x -- true", "-e =x -- true"})
        ExpectShell(folder, {{"ky run " + wrong + " 2> usage", 2}});
}

TEST(RunCommand, LogsStartAndEndAndHoldsTheLock)
{
    ky::test::ExpectShell(
        {}, {{"ky run -l file -f log -- sh -c 'ky run -l file -- echo both; exit $(($? + 2))'",
              1 + 2,
              "",
              {"ky: Cannot lock file. Fail to acquire lock"}},
             {"[ ! -e file ] && ky run -f log -- none", 127, "", {"ky: Cannot start none"}},
             {sLog, 0,
              "INFO(run): Started sh -c 'ky run -l file -- echo both; exit $(($? + 2))' as process "
              "N\nWARNING(run): process N ended with exit code 3 after T\n"
              "WARNING(run): Cannot start none\n"}});
}

TEST(RunCommand, EndsAllThatRunsAtItsLimits)
{
    // The first ends when it is told to, the second does not, and in the third another process than
    // the shell is large. There is none to be left behind when the machine was too slow to start
    // the shell in time.
    const ky::test::ShellRow isGone = {"! kill -0 $(cat pid 2> none) 2> none"};
    ky::test::ExpectShell(
        {},
        {{"ky run -t 1 -- "
          "sh -c 'trap \"exit 0\" TERM; sleep 1000 & echo $! > pid; wait'",
          124,
          "",
          {"ky: The time limit of 1s is over, ending it"}},
         isGone,
         {"ky run --grace 100ms -- "
          "sh -c 'trap \"\" TERM; sleep 1000 & echo $! > pid; kill -INT $PPID; wait'",
          128 + 9,
          "",
          {"ky: Asked by a signal to stop, ending it", "ky: Not ended 100ms later, killing it"}},
         isGone,
         {"ky run -m 60M -f log -- "
          "sh -c 'dd if=/dev/zero of=/dev/null bs=200M count=9999 & echo $! > pid; wait'",
          128 + 9,
          "",
          {" is above the limit of 60MB, killing it"}},
         isGone,
         {"grep -cE 'A resident size of .* is above |ended by signal 9 \\(SIGKILL\\) after .*, "
          "largest resident size [0-9.]+[MG]B \\(sampled every 100 ms\\)$' log",
          0, "2\n"}});
}

TEST(RunCommand, GoesOnWhenItIsStuckOrPowerless)
{
    const TemporaryFolder folder;
    const auto runWith = [&](const std::function<void()>& prepare) {
        return ky::test::RunCommand({KY_COMMAND, "run", "-t", "100ms", "--grace", "100ms", "-f",
                                     folder.path("log"), "--", "sleep", "1000"},
                                    "", prepare);
    };
    const ky::test::ChildResult stuck = runWith([] {
        ::signal(SIGTERM, SIG_IGN);  // for the command, too
        // Nobody reads what it says.
        int full[2];
        ASSERT_EQ(::pipe2(full, O_NONBLOCK), 0);
        while (::write(full[1], "", 1) == 1) {
        }
        ::fcntl(full[1], F_SETFL, 0);
        ::dup2(full[1], STDERR_FILENO);
    });
    EXPECT_EQ(stuck.exitCode, 124);
    EXPECT_EQ(runWith([] { ky::test::LetCallFail(SYS_kill, EPERM); }).exitCode, 124);
    const std::string limit =
        "WARNING(run): The time limit of 100ms is over, ending it\n"
        "WARNING(run): Not ended 100ms later, killing it\n";
    const std::string start = "INFO(run): Started sleep 1000 as process N\n";
    ExpectShell(folder,
                {{sLog, 0,
                  start + limit + "WARNING(run): process N ended by signal 9 (SIGKILL) after T\n" +
                      start + limit +
                      "WARNING(run): What is left may not be killed, leaving it\n"
                      "WARNING(run): process N was left running after T\n"},
                 {"kill -9 $(sed -n 's/.* as process //p' log | tail -n 1)"}});

    const ky::test::ChildResult alone = runWith([] { ky::test::LetCallFail(SYS_clone3, EAGAIN); });
    EXPECT_EQ(alone.exitCode, 1);
    EXPECT_TRUE(ky::test::Contains(alone.err, "ky: Cannot go on. System error : '(11) EAGAIN"))
        << alone.err;
}

TEST(RunCommand, PassesBytesOnThatAreNoText)
{
    const TemporaryFolder folder;
    const std::string name = "\u00e9%41\xff";
    std::filesystem::create_directory(folder.path(name));
    const std::string run = "export LC_ALL=C; ky run -f log -e A=x -e A=" + name + " -d " + name;
    ExpectShell(
        folder,
        {{run + " -- sh -c 'printf \"%s|\" \"$@\" \"$A\" $LC_ALL \"${PWD##*/}\"; exit 3' sh " +
              name + " '' -- 'a\nb'",
          3, name + "||--|a\nb|" + name + "|C|" + name + "|"},
         {run + " -- " + name, 127, "", {"ky: Cannot start " + name + ". System error : '(2) ENO"}},
         {"grep -c 'sh \u00e9%41? .. -- .a?b. as process' log", 0, "1\n"}});
}

TEST(RunCommand, EndsItsCommandWhenAskedAndPassesOtherSignalsOn)
{
    const auto expect = [](const std::string& options, const std::string& script, int exitCode,
                           const std::vector<std::string>& errors) {
        ky::test::ExpectShell({}, {{options +
                                        " ky run -- sh -c 'trap \"exit 5\" TERM; "
                                        "trap \"kill \\$!; exit 6\" USR1; sleep 1000 & "
                                        "until grep -q sleep /proc/$!/comm; do :; done; " +
                                        script + "; wait'",
                                    exitCode, "", errors}});
    };
    for (const std::string signal : {"INT", "TERM", "HUP", "QUIT"})
        expect("", "kill -" + signal + " $PPID", 5, {"ky: Asked by a signal to stop, ending it"});
    expect("", "kill -USR1 $PPID", 6, {});
    // Started in the background of a script, say.
    expect("env --ignore-signal=INT", "kill -INT $PPID; kill -USR1 $PPID", 6, {});
}

TEST(RunCommand, EndsWithItsParent)
{
    // The command kills the parent of ky.
    ky::test::ExpectShell(
        {}, {{"sh -c 'ky run --with-parent -f log -- sh -c \"kill -9 $$; exec sleep 1000\" & wait' "
              "2> errors; until grep -q 'ended by signal 15' log; do :; done; grep parent errors",
              0, "ky: The parent process has died, ending it\n"}});
}

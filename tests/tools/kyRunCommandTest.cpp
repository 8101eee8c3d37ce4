#include "tools/Shell.h"

#include <gtest/gtest.h>

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
                 {"ky run -d /etc/passwd -- true", 1, "", {"ky: Cannot enter /etc/passwd. "}},
                 {"ky run -f /proc/log -- true", 1, "", {"ky: "}}});
    for (const std::string wrong : {"", "--", "-t 0 -- true", "-t 5x -- true", "-t '1 2' -- true",
                                    "-t 9999999999999d -- true", "-m 0 -- true", "-e =x -- true"})
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

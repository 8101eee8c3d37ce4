#include "support/Child.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>
#include <csignal>

using ky::test::RunCommand;
using ky::test::TemporaryFolder;

namespace {

/// `ky lock FILE -- sh -c script` with the file in `folder` and "$0" as ky.
ky::test::ChildResult RunLocked(const TemporaryFolder& folder, const std::string& script)
{
    return RunCommand({KY_COMMAND, "lock", "file", "--", "sh", "-c", script, KY_COMMAND}, "", [&] {
        static_cast<void>(::chdir(folder.path("").c_str()));
        // Started so, a process would not learn how its children end.
        ::signal(SIGCHLD, SIG_IGN);
    });
}

}  // namespace

TEST(LockCommand, HoldsTheFileWhileItsCommandRuns)
{
    const TemporaryFolder folder;
    const auto held = RunLocked(folder,
                                "grep -c 'Lock from PID' file; \"$0\" lock file -- echo both; "
                                "echo inner $?; grep -c 'Lock from PID' file");
    EXPECT_EQ(held.exitCode, 0);
    EXPECT_EQ(held.out, "1\ninner 1\n1\n");
    EXPECT_EQ(held.err.find("ky: Cannot lock file. Fail to acquire lock on existing file, System "
                            "error : '(11) "),
              0u)
        << held.err;
    EXPECT_FALSE(std::filesystem::exists(folder.path("file")));

    const auto nested = RunLocked(folder, "for fd in /proc/self/fd/*; do readlink $fd; done");
    EXPECT_EQ(nested.out.find(folder.path("file")), std::string::npos) << "inherited";
    EXPECT_EQ(nested.err, "");
}

TEST(LockCommand, GivesTheOutcomeOfItsCommand)
{
    const TemporaryFolder folder;
    const struct {
        std::vector<std::string> command;
        int exitCode;
        std::string out;
    } rows[] = {
        {{"--", "true"}, 0, ""},
        {{"--", "sh", "-c", "exit 7"}, 7, ""},
        {{"--", "sh", "-c", "kill -9 $$"}, 128 + 9, ""},
        {{"--", "no-such-command"}, 127, ""},
        {{"--", "/etc"}, 126, ""},
        {{"--", "echo", "[a,b]", "--x=", "--", "-h", ""}, 0, "[a,b] --x= -- -h \n"},
        {{}, 2, ""},
        {{"--"}, 2, ""},
        {{"echo", "--", "x"}, 2, ""},
    };
    for (const auto& row : rows) {
        std::vector<std::string> arguments = {KY_COMMAND, "lock", folder.path("file")};
        arguments.insert(arguments.end(), row.command.begin(), row.command.end());
        const auto result = RunCommand(arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_EQ(result.out, row.out);
        EXPECT_FALSE(std::filesystem::exists(folder.path("file")));
    }
    const auto noFolder = RunCommand({KY_COMMAND, "lock", folder.path("no/file"), "--", "true"});
    EXPECT_EQ(noFolder.exitCode, 1);
    EXPECT_NE(noFolder.err.find("Fail to open lock file in w+, "), std::string::npos);
}

TEST(LockCommand, PassesSignalsOnAndOutlivesItsCommand)
{
    const TemporaryFolder folder;
    // The parent is ky; the count keeps a signal that goes astray from lasting for ever.
    for (const std::string signal : {"TERM", "USR1"}) {
        const auto result = RunLocked(
            folder, "trap '[ -e file ] && echo held; exit 5' " + signal + "; kill -" + signal +
                        " $PPID; i=0; while [ $i -lt 3000000 ]; do i=$((i + 1)); done");
        EXPECT_EQ(result.exitCode, 5) << signal;
        EXPECT_EQ(result.out, "held\n") << signal;
        EXPECT_FALSE(std::filesystem::exists(folder.path("file"))) << signal;
    }
}

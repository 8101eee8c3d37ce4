#include "tools/Shell.h"

#include <gtest/gtest.h>

#include <filesystem>

TEST(LockCommand, HoldsTheFileWhileItsCommandRunsAndGivesItsOutcome)
{
    const ky::test::TemporaryFolder folder;
    // With SIGCHLD ignored a process would not learn how its children end. The count keeps a signal
    // that goes astray from lasting for ever.
    ky::test::ExpectShell(
        folder,
        {{"ky lock file -- sh -c 'grep -c \"Lock from PID\" file; ls -l /proc/self/fd | grep file; "
          "ky lock file -- echo both; echo inner $?; grep -c \"Lock from PID\" file'",
          0,
          "1\ninner 1\n1\n",
          {"ky: Cannot lock file. Fail to acquire lock on existing file, System error : '(11) "}},
         {"env --ignore-signal=CHLD ky lock file -- sh -c 'exit 7'", 7},
         {"ky lock file -- sh -c 'kill -9 $$'", 128 + 9},
         {"ky lock file -- no-such-command", 127, "", {"Cannot start no-such-command. "}},
         {"ky lock file -- /etc", 126, "", {"(13) EACCES "}},
         {"ky lock file -- echo '[a,b]' --x= -- -h ''", 0, "[a,b] --x= -- -h \n"},
         {"ky lock file -- sh -c 'trap \"ls file; exit 5\" TERM; kill -TERM $PPID; i=0; "
          "while [ $i -lt 3000000 ]; do i=$((i + 1)); done'",
          5, "file\n"},
         {"ky lock no/file -- true", 1, "", {"Fail to open lock file in w+, "}},
         {"ky lock file echo -- x 2> usage", 2},
         {"ky lock file -- 2> usage", 2}});
    EXPECT_FALSE(std::filesystem::exists(folder.path("file")));
}

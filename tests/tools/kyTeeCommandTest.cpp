#include "tools/Shell.h"

#include <gtest/gtest.h>

using ky::test::Content;

TEST(TeeCommand, GivesEveryByteToEveryOutput)
{
    const ky::test::TemporaryFolder folder;
    folder.write("kept", "old,");
    const std::string emptied = folder.write("emptied", "old,");
    for (const std::string& input : {std::string("zero \0 byte", 11), std::string(1 << 20, 'm')}) {
        const auto result = RunShell(folder, "ky tee emptied new && cmp emptied new 1>&2", input);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(result.out == input && Content(emptied) == input);
    }
    ExpectShell(folder, {{"echo new | ky tee --append kept; cat kept", 0, "new\nold,new\n"}});
}

TEST(TeeCommand, TellsEachFailureOnceAndGoesOnWithTheOthers)
{
    const ky::test::TemporaryFolder folder;
    folder.write("input", std::string(300'000, 'x'));
    // In the second one neither a limit nor a reader that is gone ends the command.
    ExpectShell(folder,
                {{"ky tee first /dev/full none/file . /dev/full last < input > out; echo $?; "
                  "for copy in out first last; do cmp $copy input; done",
                  0,
                  "1\n",
                  {"ky: Cannot open none/file. System error : '(2) ENOENT ",
                   "ky: Cannot open .. System error : '(21) EISDIR ",
                   "ky: Cannot write to /dev/full. System error : '(28) ENOSPC ",
                   "ky: Cannot write to /dev/full. "}},
                 {"ulimit -f 200; { ky tee first last < input; echo $? > code; } | true; "
                  "cat code; wc -c < first; wc -c < last",
                  0,
                  "1\n102400\n102400\n",
                  {"ky: Cannot write to first. System error : '(27) EFBIG ",
                   "ky: Cannot write to last. ", "ky: Cannot write to standard output. "}},
                 {"ky tee <&-", 1, "", {"ky: Cannot read standard input. "}}});
}

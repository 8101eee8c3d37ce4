#include "support/Child.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using ky::test::Content;
using ky::test::Lines;
using ky::test::RunCommand;

TEST(TeeCommand, GivesEveryByteToEveryOutput)
{
    const ky::test::TemporaryFolder folder;
    const std::string kept = folder.write("kept", "old,");
    const std::string emptied = folder.write("emptied", "old,");
    for (const std::string& input :
         {std::string("zero \0 byte", 11), std::string(1 << 20, 'm'), std::string()}) {
        const auto result = RunCommand({KY_COMMAND, "tee", emptied, folder.path("new")}, input);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(result.out == input && Content(emptied) == input &&
                    Content(folder.path("new")) == input);
    }
    EXPECT_EQ(RunCommand({KY_COMMAND, "tee", "--append", kept}, "new").exitCode, 0);
    EXPECT_EQ(Content(kept), "old,new");
}

TEST(TeeCommand, TellsEachFailureOnceAndGoesOnWithTheOthers)
{
    const ky::test::TemporaryFolder folder;
    const std::string input(300'000, 'x');
    const std::string first = folder.path("first");
    const std::string last = folder.path("last");
    const auto result = RunCommand({KY_COMMAND, "tee", first, "/dev/full", folder.path("none/file"),
                                    folder.path(""), "/dev/full", last},
                                   input);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.out == input && Content(first) == input && Content(last) == input);
    const auto lines = Lines(result.err);
    ASSERT_EQ(lines.size(), 4u) << result.err;
    EXPECT_TRUE(lines[0].starts_with("ky: Cannot open " + folder.path("none/file") +
                                     ". System error : '(2) ENOENT "));
    EXPECT_TRUE(lines[1].starts_with("ky: Cannot open " + folder.path("") +
                                     ". System error : '(21) EISDIR "));
    for (const std::size_t i : {2, 3})
        EXPECT_TRUE(
            lines[i].starts_with("ky: Cannot write to /dev/full. System error : '(28) ENOSPC "));

    // A reader that is gone, and a limit: neither ends the command.
    const auto limited = RunCommand({KY_COMMAND, "tee", first, last}, input, [&] {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        ::close(ends[0]);
        ::dup2(ends[1], STDOUT_FILENO);
        const rlimit limit = {100'000, 100'000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    });
    EXPECT_EQ(limited.exitCode, 1);
    const auto reports = Lines(limited.err);
    ASSERT_EQ(reports.size(), 3u) << limited.err;
    for (std::size_t i = 0; i < 2; ++i)
        EXPECT_TRUE(reports[i].starts_with("ky: Cannot write to " + (i == 0 ? first : last) +
                                           ". System error : '(27) EFBIG "));
    EXPECT_TRUE(reports[2].starts_with("ky: Cannot write to standard output. "));
    EXPECT_TRUE(Content(first).size() == 100'000 && Content(last).size() == 100'000);

    const auto noInput = RunCommand({KY_COMMAND, "tee"}, "", [] { ::close(STDIN_FILENO); });
    EXPECT_EQ(noInput.exitCode, 1);
    EXPECT_TRUE(noInput.err.starts_with("ky: Cannot read standard input. ")) << noInput.err;
}

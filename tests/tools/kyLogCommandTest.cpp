#include "ky/kyLog.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using ky::test::Contains;
using ky::test::Lines;
using ky::test::RunCommand;

namespace {

std::string AfterPrefix(const std::string& line)
{
    return line.substr(line.find(" : ") + 3);
}

}  // namespace

TEST(LogCommand, WritesEveryLineOnceWholeAndInOrder)
{
    std::string input;
    std::vector<std::string> expected;
    for (int i = 0; i < 10000; ++i)
        expected.push_back("line " + std::to_string(i) + std::string(i % 200, 'x'));
    expected.insert(expected.end(),
                    {"", "caf\xc3\xa9", "bad \xff\xfe bytes", std::string("zero \0 byte", 11),
                     std::string(1 << 20, 'm'), "carriage return\r", "no newline at the end"});
    for (const std::string& line : expected)
        input += line + "\n";
    input.pop_back();

    const ky::test::TemporaryFolder folder;
    const std::string file = folder.write("input", input);
    const auto fromInput =
        RunCommand({KY_COMMAND, "log", "--level", "WARNING", "-t", "net"}, input);
    const auto fromFile = RunCommand({KY_COMMAND, "log", "-l", "warning", "-t", "net", file});
    for (const auto& result : {fromInput, fromFile}) {
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        const auto lines = Lines(result.out);
        ASSERT_EQ(lines.size(), expected.size());
        for (std::size_t i = 0; i < lines.size(); ++i) {
            ASSERT_EQ(lines[i].find("WARNING(net) PID "), 0u);
            ASSERT_EQ(AfterPrefix(lines[i]), expected[i]);
        }
    }
}

TEST(LogCommand, ShowsWhicheverLevelIsChosen)
{
    for (const char* level : {"dev", "trace", "debug", "critical"}) {
        EXPECT_EQ(Lines(RunCommand({KY_COMMAND, "log", "-l", level}, "x\n").out).size(), 1u)
            << level;
        EXPECT_EQ(RunCommand({KY_COMMAND, "log", "-q", "-l", level}, "x\n").out, "") << level;
    }
    EXPECT_EQ(RunCommand({KY_COMMAND, "log", "-l", "loud"}).exitCode, 2);
    EXPECT_EQ(RunCommand({KY_COMMAND}).exitCode, 2);
}

TEST(LogCommand, NamesWhatItCannotReadAndGoesOn)
{
    const ky::test::TemporaryFolder folder;
    const std::string good = folder.write("good", "from the good file\n");
    const auto result =
        RunCommand({KY_COMMAND, "log", folder.path("missing"), folder.path(""), good});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(Contains(
        result.err, "ky: Cannot open " + folder.path("missing") + ". System error : '(2) ENOENT "))
        << result.err;
    EXPECT_TRUE(Contains(result.err,
                         "ky: Cannot read " + folder.path("") + ". System error : '(21) EISDIR "))
        << result.err;
    EXPECT_TRUE(Contains(result.out, " : from the good file\n"));
}

TEST(LogCommand, ReportsAnOutputThatTakesNothing)
{
    const auto full = RunCommand({KY_COMMAND, "log"}, "x\ny\n", [] {
        ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    });
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_EQ(Lines(full.err).size(), 1u) << full.err;
    EXPECT_TRUE(Contains(full.err, "Cannot write to standard output. System error : '(28) ENOSPC "))
        << full.err;

    const auto closed = RunCommand({KY_COMMAND, "log"}, "x\n", [] { ::close(STDOUT_FILENO); });
    EXPECT_EQ(closed.exitCode, 1);
    EXPECT_TRUE(Contains(closed.err, "(9) EBADF")) << closed.err;

    const auto noInput = RunCommand({KY_COMMAND, "log"}, "", [] { ::close(STDIN_FILENO); });
    EXPECT_EQ(noInput.exitCode, 1);
    EXPECT_TRUE(Contains(noInput.err, "Cannot read standard input. ")) << noInput.err;
}

TEST(LogCommand, NeverTakesAnInputFileForAStandardStream)
{
    const ky::test::TemporaryFolder folder;
    const std::string file = folder.write("input", "precious\n");
    // With 0 free the file would be descriptor 0, and "-" would read it once more.
    const auto input =
        RunCommand({KY_COMMAND, "log", file, "-"}, "", [] { ::close(STDIN_FILENO); });
    EXPECT_EQ(input.exitCode, 1);
    EXPECT_EQ(Lines(input.out).size(), 1u) << input.out;
    EXPECT_TRUE(Contains(input.err, "Cannot read standard input. ")) << input.err;

    const auto both = RunCommand({KY_COMMAND, "log", file}, "", [] {
        ::close(STDIN_FILENO);
        ::close(STDERR_FILENO);
    });
    EXPECT_EQ(both.exitCode, 0);
    EXPECT_TRUE(Contains(both.out, " : precious\n"));

    const auto itself = RunCommand({KY_COMMAND, "log", file}, "", [&] {
        ::dup2(::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC), STDOUT_FILENO);
    });
    EXPECT_EQ(itself.exitCode, 1);
    EXPECT_TRUE(Contains(itself.err, "standard output too")) << itself.err;
}

TEST(LogCommand, ReportsALineThatDoesNotFitIntoMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer needs more address space than the limit leaves";
#endif
    const auto result = RunCommand({KY_COMMAND, "log", "/dev/zero"}, "", [] {
        const rlimit limit = {100 << 20, 100 << 20};
        ::setrlimit(RLIMIT_AS, &limit);
    });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(Contains(result.err, "(12) ENOMEM")) << result.err;
}

TEST(LogCommand, SendsNamedLinesToTheSystemLogAndTakesEmptyNames)
{
    const auto named = RunCommand({KY_COMMAND, "log", "-q", "--system-log", "name"}, "x\n");
    EXPECT_EQ(named.exitCode, 0) << named.err;
    const ky::test::TemporaryFolder folder;
    const auto empty =
        RunCommand({KY_COMMAND, "log", "--sub-type=", folder.write("input", "one\n")}, "two\n");
    EXPECT_TRUE(Contains(empty.out, "INFO PID ") && Contains(empty.out, " : one\n"));
}

TEST(InfoCommand, PrintsVersionProcessMemoryAndClocks)
{
    const auto result = RunCommand({KY_COMMAND, "info"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    for (const char* what : {"3.0.0.1226", "process ", " bytes resident", "+0000", " ms ("})
        EXPECT_TRUE(Contains(result.out, what)) << what << " in\n" << result.out;
}

TEST(LogCommand, WritesALogFileWithEveryOption)
{
    const ky::test::TemporaryFolder folder;
    const std::string path = folder.write("app.log", "old\n");
    std::string input;
    for (int i = 0; i < 100; ++i)
        input += "a line that is long enough to fill a file of 1024 bytes after a while\n";
    const auto full = RunCommand({KY_COMMAND, "log", "-q", "--file", path, "--replace", "--rotate",
                                  "monthly", "--max-size", "1K", "--max-files", "3"},
                                 input);
    EXPECT_EQ(full.exitCode, 0) << full.err;
    EXPECT_EQ(full.out, "");
    const auto files =
        RunCommand({"sh", "-c", "cd \"$0\"; cat *.log | grep -c old; ls | wc -l", folder.path("")});
    EXPECT_EQ(files.out, "0\n3\n");
    const std::vector<std::string> refused[] = {{KY_COMMAND, "log", "--file=", path},
                                                {KY_COMMAND, "log", "--file", path, path},
                                                {KY_COMMAND, "log", "--file", "/dev/full"}};
    for (const auto& command : refused) {
        const auto result = RunCommand(command, "line\n");
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_NE(result.err, "");
    }
    EXPECT_EQ(RunCommand({KY_COMMAND, "log", "--max-files", "3"}, "line\n").exitCode, 2);
}

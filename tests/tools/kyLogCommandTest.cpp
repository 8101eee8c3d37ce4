#include "tools/Shell.h"

#include <gtest/gtest.h>

using ky::test::Lines;
using ky::test::TemporaryFolder;

TEST(LogCommand, WritesEveryLineOnceWholeAndInOrder)
{
    std::vector<std::string> expected;
    for (int i = 0; i < 10000; ++i)
        expected.push_back("line " + std::to_string(i) + std::string(i % 200, 'x'));
    expected.insert(expected.end(),
                    {"", "bad \xff\xfe bytes", std::string("zero \0 byte", 11),
                     std::string(1 << 20, 'm'), "carriage return\r", "no newline at the end"});
    std::string input;
    for (const std::string& line : expected)
        input += line + "\n";
    input.pop_back();

    const TemporaryFolder folder;
    const auto result = RunShell(folder, "tee file | ky log -l WARNING -t net - file", input);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    const auto lines = Lines(result.out);
    ASSERT_EQ(lines.size(), 2 * expected.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        ASSERT_EQ(lines[i].find("WARNING(net) PID "), 0u);
        ASSERT_EQ(lines[i].substr(lines[i].find(" : ") + 3), expected[i % expected.size()]);
    }
}

TEST(LogCommand, TellsWhatItCannotReadOrWrite)
{
    const TemporaryFolder folder;
    folder.write("input", "precious\n");
    // In those without standard input a file would be descriptor 0, and "-" would read it twice.
    ExpectShell(folder,
                {{"ky log missing . input > out; echo $?; sed 's/.* : //' out",
                  0,
                  "1\nprecious\n",
                  {"ky: Cannot open missing. System error : '(2) ENOENT ",
                   "ky: Cannot read .. System error : '(21) EISDIR "}},
                 {"printf 'x\\ny\\n' | ky log > /dev/full",
                  1,
                  "",
                  {"ky: Cannot write to standard output. System error : '(28) ENOSPC "}},
                 {"echo x | ky log >&-", 1, "", {"(9) EBADF "}},
                 {"ky log input - <&- > out; echo $?; wc -l < out",
                  0,
                  "1\n1\n",
                  {"ky: Cannot read standard input. "}},
                 {"ky log input <&- 2>&- | sed 's/.* : //'", 0, "precious\n"},
                 {"ulimit -f 99; ky log input >> input", 1, "", {"standard output too"}},
                 {"ulimit -f 99; ky log -q --file input input", 1, "", {"log file too: input"}},
                 {"ky log --file= input", 1, "", {"ky: "}},
                 {"echo x | ky log -q --file /dev/full", 1, "", {"'/dev/full', 1 lines are lost "}},
                 {"cat input", 0, "precious\n"}});
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    ExpectShell(folder, {{"ulimit -v 102400; ky log /dev/zero", 1, "", {"(12) ENOMEM "}}});
#endif
}

TEST(LogCommand, TakesItsOptions)
{
    const std::string line(70, 'x');
    ky::test::ExpectShell(
        {}, {{"for level in dev trace debug critical; do "
              "echo x | ky log -l $level | wc -l; echo x | ky log -q -l $level; done",
              0, "1\n1\n1\n1\n"},
             {"echo x | ky log --sub-type= - | sed 's/ PID.*//'", 0, "INFO\n"},
             {"echo x | ky log -q --system-log name"},
             {"mkdir logs; cd logs; echo old > app.log; yes " + line +
                  " | head -100 | ky log -q --file app.log --replace --rotate monthly "
                  "--max-size 1K --max-files 3; cat *.log | grep -c old; ls | wc -l",
              0, "0\n3\n"},
             {"{ ky log --max-files 3 || ky log -l loud || ky; } 2> usage", 2},
             {"ky lug", 2, "", {"not expected: lug", "--help"}}});
}

TEST(InfoCommand, PrintsVersionProcessMemoryAndClocks)
{
    ky::test::ExpectShell(
        {},
        {{"ky info | grep -cE '3\\.0\\.0\\.1226|^process +[0-9]| bytes resident|UTC .*\\+0000$'", 0,
          "4\n"}});
}

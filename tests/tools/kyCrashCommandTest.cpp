#include "tools/Shell.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <sys/stat.h>

using ky::test::Contains;
using ky::test::TemporaryFolder;

namespace {

/// `ky crash` that finds the programs in the folder "bin" only.
const std::string sDecode = "PATH=$PWD/bin $(command -v ky) crash ";

/// A report of one frame in the module at `path`.
std::string Report(const std::string& path, const std::string& buildId = "00ff")
{
    return "Got signal (SIGSEGV 11) ...\n./host(+0x10) [0x401010]\nInterrupted at 0x401010\n"
           "Module 0x400000-0x500000 build-id " +
           buildId + " " + path + "\n";
}

}  // namespace

TEST(CrashCommand, NamesFunctionsAndLinesOfARealCrash)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has handlers of its own";
#endif
    for (const std::string program : {"addr2line", "llvm-symbolizer"}) {
        if (!std::filesystem::exists("/usr/bin/" + program))
            continue;
        // Twice in a row, as a file holds it that takes both standard output and the system log.
        // Then with one digit of each build-id changed.
        ky::test::ExpectShell(
            {},
            {{"mkdir bin; ln -s /usr/bin/" + program +
              " bin; ulimit -c 0; "
              "{ " KY_EXAMPLE_CRASH " > report; [ $? = 139 ]; } 2> none"},
             {"sed 's/^/Nov 21 host app[12]: kySystem : /; s/$/\\r\\nINFO PID 7 : other/' report | "
              "cat - report | " +
              sDecode + "> shown"},
             {"grep -c 'Got signal (' shown", 0, "1\n"},
             {"grep -cE 'FirstLetter\\(.*  <- interrupted here|CountOrders\\(' shown", 0, "2\n"},
             {"sed -n 's/.* at .*crash.cpp:\\([0-9]*\\).*/\\1p/p' shown | "
              "sed -n -f - " KY_EXAMPLES "/crash.cpp",
              0,
              "    return name[0];\n"
              "        named += FirstLetter(orders[i]) != '\\0' ? 1 : 0;\n"
              "    const int named = CountOrders(orders, 2);\n"},
             {"sed 's/ build-id 0/ build-id 1/; t; s/ build-id ./ build-id 0/' report | " +
                  sDecode + "> shown; grep -c crash.cpp shown",
              1, "0\n"},
             {"grep -cE 'example-crash\\(\\+0x.*  <- interrupted here|"
              "Not looked up: " KY_EXAMPLE_CRASH ", the file has the build-id ' shown",
              0, "2\n"}});
    }
}

TEST(CrashCommand, SaysWhatIsMissing)
{
    ky::test::ExpectShell(
        {}, {{sDecode, 1, "", {"ky: No symboliser in PATH. Install addr2line "}},
             {"echo x | ky crash -", 1, "", {"ky: No crash report in standard input"}},
             {"ky crash missing", 1, "", {"ky: Cannot open missing. System error : '(2) "}},
             {"ky crash a b 2> usage", 2}});
}

TEST(CrashCommand, WithstandsAnyReport)
{
    const TemporaryFolder folder;
    const std::string fifo = folder.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string manyReports;
    std::string manyLines = "Got signal (SIGSEGV 11) \n";
    for (int i = 0; i < 1000; ++i) {
        const std::string prefix = "CRITICAL PID " + std::to_string(i) + " : ";
        manyReports += prefix + "Got signal (SIGABRT 6) x\n" + prefix + "a(+0x1) [0x401010]\n";
        manyLines += "a [0x" + std::to_string(i) + "]\n";
    }
    const std::pair<std::string, std::string> rows[] = {
        {Report(fifo), "Not looked up: " + fifo + ", not a regular file"},
        {Report("/etc/passwd"), "Not looked up: /etc/passwd, not a program"},
        {Report(KY_COMMAND, "none"), "no build-id in the report"},
        {Report("/\x1b[31m\xc2\x9bred"), "/\\x1b[31m\xc2\\x9bred, no such file"},
        {"Got signal (SIGX)\nx [0xffffffffffffffff]\nx [0x0]\n", "0xffffffffffffffff x\n"},
        {"CRITICAL PID 1 : tail(+0x1) [0x12]\n", "A report without its first line\n"},
        {std::string(3000000, 'x') + "\n" + Report("/none"), "./host(+0x10)  <- interrupted"},
        {"Got signal (SIGSEGV 11)\nInterrupted at 0x12\n", "12 no trace  <- interrupted here"},
        {manyReports, "Got signal (SIGABRT 6) x\n"},
        {manyLines, "#255 "},
    };
    for (const auto& [report, shown] : rows) {
        SCOPED_TRACE(report.substr(0, 200));
        const auto result = RunShell(folder, "ky crash", report);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(Contains(result.out, shown)) << result.out.substr(0, 2000);
        EXPECT_FALSE(Contains(result.out, "\x1b"));
    }
    for (const std::string& garbage :
         {std::string(100000, '\0'), std::string("[0x\n[0x]\nGot signal (SIG\nModule 0x\n"
                                                 "x [0x11111111111111111]\nModule 0x2-0x1 a /\n")})
        EXPECT_EQ(RunShell(folder, "ky crash", garbage).exitCode, 1);
}

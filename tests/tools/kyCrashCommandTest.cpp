#include "support/Child.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <csignal>
#include <cstdlib>

using ky::test::ChildResult;
using ky::test::Contains;
using ky::test::Lines;
using ky::test::RunCommand;

namespace {

constexpr const char* sSymbolisers[] = {"addr2line", "llvm-symbolizer"};

/// `ky crash` with a folder of its own as `PATH`.
ChildResult Decode(const std::string& report, const ky::test::TemporaryFolder& path)
{
    return RunCommand({KY_COMMAND, "crash"}, report,
                      [&] { ::setenv("PATH", path.path("").c_str(), 1); });
}

/// Puts a link to a program of the system into `path`.
bool Offer(const std::string& program, const ky::test::TemporaryFolder& path)
{
    const std::string file = "/usr/bin/" + program;
    if (!std::filesystem::exists(file))
        return false;
    std::filesystem::create_symlink(file, path.path(program));
    return true;
}

/// "crash.cpp:20" for the line of the example that has `text` in it.
std::string PlaceOf(const std::string& text)
{
    std::ifstream source(KY_EXAMPLES "/crash.cpp");
    std::string line;
    for (int number = 1; std::getline(source, line); ++number)
        if (Contains(line, text))
            return "examples/crash.cpp:" + std::to_string(number);
    return "no line with " + text;
}

std::string Line(const std::string& text, const std::string& what)
{
    for (const std::string& line : Lines(text))
        if (Contains(line, what))
            return line;
    return {};
}

std::string WithPrefixes(const std::string& report)
{
    std::string text = "unrelated [0x1]\n";
    for (const std::string& line : Lines(report))
        text += "Nov 21 13:26:55 host app[12]: kySystem : " + line + "\r\nINFO PID 7 : other\n";
    return text;
}

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
    const auto crashed = RunCommand({KY_EXAMPLE_CRASH}, {}, [] {
        const rlimit noCore = {0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
    });
    ASSERT_EQ(crashed.signal, SIGSEGV);
    int tried = 0;
    for (const char* const program : sSymbolisers) {
        SCOPED_TRACE(program);
        const ky::test::TemporaryFolder path;
        if (!Offer(program, path))
            continue;
        ++tried;
        // Twice in a row, as a file holds it that takes both standard output and the system log.
        const std::string prefixed = WithPrefixes(crashed.out);
        for (const std::string& report : {crashed.out, prefixed + crashed.out}) {
            const auto result = Decode(report, path);
            EXPECT_EQ(result.exitCode, 0) << result.err;
            EXPECT_EQ(result.out.find("Got signal ("), 0u) << result.out;
            EXPECT_EQ(result.out.find("Got signal (", 1), std::string::npos) << result.out;
            const std::string fault = Line(result.out, "  <- interrupted here");
            EXPECT_TRUE(Contains(fault, "FirstLetter(")) << result.out;
            EXPECT_TRUE(Contains(fault, PlaceOf("return name[0];"))) << result.out;
            const std::string caller = Line(result.out, "CountOrders(");
            EXPECT_TRUE(Contains(caller, PlaceOf("named += "))) << result.out;
            EXPECT_TRUE(Contains(Line(result.out, " main at "), PlaceOf("CountOrders(orders, 2)")));
        }
        // One digit of the program's build-id.
        std::string other = crashed.out;
        char& digit = other[other.find(" build-id ") + 10];
        digit = digit == '0' ? '1' : '0';
        const auto result = Decode(other, path);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(Contains(Line(result.out, "interrupted here"), "example-crash(+0x"));
        const std::string note = Line(result.out, "Not looked up: " KY_EXAMPLE_CRASH);
        EXPECT_TRUE(Contains(note, "the file has the build-id ")) << result.out;
        EXPECT_FALSE(Contains(result.out, "crash.cpp")) << result.out;
    }
    EXPECT_GT(tried, 0) << "no symboliser is installed";
}

TEST(CrashCommand, SaysWhatIsMissing)
{
    const ky::test::TemporaryFolder empty;
    const auto noProgram = Decode(Report("/bin/true"), empty);
    EXPECT_EQ(noProgram.exitCode, 1);
    EXPECT_EQ(noProgram.out, "");
    EXPECT_EQ(noProgram.err.find("ky: No symboliser in PATH. Install addr2line "), 0u);

    const auto noReport = RunCommand({KY_COMMAND, "crash", "-"}, "INFO PID 1 : all is well\n");
    EXPECT_EQ(noReport.exitCode, 1);
    EXPECT_EQ(noReport.err, "ky: No crash report in standard input\n");
    const auto noFile = RunCommand({KY_COMMAND, "crash", empty.path("missing")});
    EXPECT_EQ(noFile.exitCode, 1);
    EXPECT_TRUE(Contains(noFile.err, "ky: Cannot open " + empty.path("missing") + ". System err"));
    EXPECT_EQ(RunCommand({KY_COMMAND, "crash", "a", "b"}).exitCode, 2);
}

TEST(CrashCommand, WithstandsAnyReport)
{
    const ky::test::TemporaryFolder path;
    ASSERT_TRUE(Offer("addr2line", path));
    const ky::test::TemporaryFolder folder;
    const std::string fifo = folder.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string manyReports;
    std::string manyLines = "Got signal (SIGSEGV 11) \n";
    for (int i = 0; i < 1000; ++i) {
        manyReports += "CRITICAL PID " + std::to_string(i) + " : Got signal (SIGABRT 6) x\n" +
                       "CRITICAL PID " + std::to_string(i) + " : a(+0x1) [0x401010]\n";
        manyLines += "a [0x" + std::to_string(i) + "]\n";
    }
    const struct {
        std::string report;
        std::string shown;
    } rows[] = {
        {Report(fifo), "Not looked up: " + fifo + ", not a regular file"},
        {Report("/etc/passwd"), "Not looked up: /etc/passwd, not a program"},
        {Report("@" + fifo), "Not looked up: @" + fifo + ", no such file"},
        {Report("/bin/true; echo \"$(id)\" 'x\\012"), "no such file"},
        {Report(KY_COMMAND, "none"), "no build-id in the report"},
        {Report("/\x1b[31m\xc2\x9bred"), "/\\x1b[31m\xc2\\x9bred, no such file"},
        {"Got signal (SIGX)\nx [0xffffffffffffffff]\nx [0x0]\n", "0xffffffffffffffff x\n"},
        {"CRITICAL PID 1 : tail(+0x1) [0x12]\n", "A report without its first line\n"},
        {std::string(3000000, 'x') + "\n" + Report("/none"), "./host(+0x10)  <- interrupted"},
        {"Got signal (SIGSEGV 11)\nInterrupted at 0x12\n", "12 no trace  <- interrupted here"},
        {manyReports, "Got signal (SIGABRT 6) x\n"},
        {manyLines, "#255 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.report.substr(0, 200));
        const auto result = Decode(row.report, path);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(Contains(result.out, row.shown)) << result.out.substr(0, 2000);
        EXPECT_FALSE(Contains(result.out, "\x1b")) << result.out;
    }
    for (const std::string& garbage :
         {std::string(100000, '\0'), std::string("[0x\n[0x]\nGot signal (SIG\nModule 0x\n"),
          std::string("Got signal (SIG\nx [0x11111111111111111]\nModule 0x2-0x1 build-id a /\n")})
        EXPECT_EQ(Decode(garbage, path).exitCode, 1);
}

#include "ky/kyLog.h"

#include "support/Child.h"
#include "support/DaemonSocket.h"
#include "support/Library.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using ky::test::Contains;
using ky::test::RunCommand;

namespace {

/// Strict: raw control characters and bytes that are not UTF-8 end it with an error.
constexpr const char* sMessagesOfJson =
    "import json, sys\n"
    "for line in sys.stdin.buffer.read().splitlines(keepends=True):\n"
    "    entry = json.loads(line.decode('utf-8'))\n"
    "    assert entry['level'] == 'info' and entry['subType'] == 'input' and entry['time'][-1] == "
    "'Z'\n"
    "    sys.stdout.buffer.write(entry['message'].encode('utf-8') + b'\\n')\n";

}  // namespace

TEST(JsonLog, IsOneValidObjectForEachEntry)
{
    const std::string bad = "\xef\xbf\xbd";
    const std::pair<std::string, std::string> rows[] = {
        {"quote \" backslash \\ slash /", {}},
        {std::string("controls \0 \x01 \t \r \x1f \x7f", 21), {}},
        {"", {}},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xed\x9f\xbf \xee\x80\x80",
         {}},
        {"stray \xff \x80", "stray " + bad + " " + bad},
        {"overlong \xc0\xaf \xe0\x80\x80", "overlong " + bad + bad + " " + bad + bad + bad},
        {"surrogate \xed\xa0\x80", "surrogate " + bad + bad + bad},
        {"too large \xf4\x90\x80\x80", "too large " + bad + bad + bad + bad},
        {"cut \xf0\x9f\x98", "cut " + bad + bad + bad},
    };
    std::string input;
    std::string expected;
    for (const auto& [message, shown] : rows) {
        input += message + "\n";
        expected += (shown.empty() ? message : shown) + "\n";
    }
    const ky::test::TemporaryFolder folder;
    const std::string file = folder.write("log.json", "");
    const auto logged = RunCommand({KY_EXAMPLE_JSONLOG, file}, input);
    ASSERT_EQ(logged.exitCode, 0) << logged.err;
    const auto parsed = RunCommand({"python3", "-c", sMessagesOfJson}, {}, [&] {
        ::dup2(::open(file.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    });
    if (parsed.exitCode == 127)
        GTEST_SKIP() << "no parser here";
    EXPECT_EQ(parsed.exitCode, 0) << parsed.err;
    EXPECT_EQ(parsed.out, expected);
}

#ifdef KY_EXAMPLE_JOURNALD
TEST(JournaldExample, SendsFieldsOfItsOwn)
{
    const auto body = [](const ky::test::DaemonSocket& journal) {
        EXPECT_EQ(RunCommand({KY_EXAMPLE_JOURNALD}).exitCode, 0);
        const std::string first = journal.receive();
        for (const char* field : {"MESSAGE=started with 3 work items\n", "PRIORITY=6\n",
                                  "SYSLOG_IDENTIFIER=example-journald\n", "KY_TIME_MS="})
            EXPECT_TRUE(Contains(first, field)) << field << " in " << first;
        const std::string second = journal.receive();
        for (const char* field :
             {"lost 2.5 % of the packets\non 2 links\n", "PRIORITY=4\n", "KY_SUB_TYPE=net\n"})
            EXPECT_TRUE(Contains(second, field)) << field << " in " << second;
        EXPECT_EQ(journal.receive(), "");
    };
    ky::test::ExpectPassesWithDaemon("/run/systemd/journal/socket", body);
}
#endif

struct Logrotate : ky::test::FullLibrary {};

TEST_F(Logrotate, RenamesTheFileUnderRunningThreadsAndLosesNoLine)
{
    const ky::test::TemporaryFolder folder;
    std::string text = ky::test::Content(KY_EXAMPLES "/app.logrotate");
    const std::string path = "/var/log/app/app.log";
    ASSERT_NE(text.find(path), std::string::npos);
    text.replace(text.find(path), path.size(), folder.path("app.log"));
    const std::string config = folder.write("config", text);
    ::chmod(config.c_str(), 0644);
    ASSERT_TRUE(ky::kyLog::Instance()->installFileHandlerUtf8(folder.path("app.log")));

    std::atomic<unsigned long> written = 0;
    const auto waitForLines = [&] {
        for (const unsigned long before = written; written < before + 50;)
            std::this_thread::yield();
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&](const std::stop_token& stop) {
            for (; !stop.stop_requested(); ++written)
                ky::kyLogObject(ky::kyLog::Info).setFlushNow() << "line";
        });
    for (int i = 0; i < 5; ++i) {
        waitForLines();
        const auto result =
            RunCommand({"/usr/sbin/logrotate", "-f", "-s", folder.path("state"), config});
        EXPECT_EQ(result.exitCode, 0) << result.err;
    }
    waitForLines();
    threads.clear();
    ky::kyLog::Instance()->removeFileHandler();
    const auto lines = RunCommand(
        {"sh", "-c", "ls \"$0\".?* | wc -l; zcat -f \"$0\"* | wc -l", folder.path("app.log")});
    EXPECT_EQ(lines.out, "5\n" + std::to_string(written) + "\n");
}

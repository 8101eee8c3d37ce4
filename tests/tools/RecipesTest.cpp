#include "ky/kyLog.h"

#include "support/Library.h"
#include "tools/Shell.h"

#include <atomic>
#include <thread>

using ky::test::TemporaryFolder;
using namespace std::string_literals;

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
    const TemporaryFolder folder;
    folder.write("messages.py", sMessagesOfJson);
    const std::string input =
        "quote \" backslash \\ controls \0 \x01 \t \r \x1f \x7f\n\n"s
        "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf \xed\x9f\xbf \xee\x80\x80\n"s;
    // Stray, overlong, a surrogate, too large, and cut.
    const auto result = RunShell(
        folder, KY_EXAMPLE_JSONLOG " log.json && python3 messages.py < log.json",
        input + "\xff \x80 \xc0\xaf \xe0\x80\x80 \xed\xa0\x80 \xf4\x90\x80\x80 \xf0\x9f\n");
    if (result.exitCode == 127)
        GTEST_SKIP() << "no parser here";
    const std::string bad = "\xef\xbf\xbd";
    std::string replaced = "1 1 11 111 111 1111 11\n";
    for (std::size_t at = 0; (at = replaced.find('1')) != std::string::npos;)
        replaced.replace(at, 1, bad);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, input + replaced);
}

struct Logrotate : ky::test::FullLibrary {};

TEST_F(Logrotate, RenamesTheFileUnderRunningThreadsAndLosesNoLine)
{
    const TemporaryFolder folder;
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
    const std::string rotate = "umask 022; sed \"s,/var/log/app,$PWD,\" " KY_EXAMPLES
                               "/app.logrotate > config; /usr/sbin/logrotate -f -s state config";
    for (int i = 0; i < 5; ++i) {
        waitForLines();
        ExpectShell(folder, {{rotate}});
    }
    waitForLines();
    threads.clear();
    ky::kyLog::Instance()->removeFileHandler();
    ExpectShell(folder, {{"ls app.log.* | wc -l; zcat -f app.log* | wc -l", 0,
                          "5\n" + std::to_string(written) + "\n"}});
}

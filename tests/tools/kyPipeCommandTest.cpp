#include "ky/kyNamedPipe.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <poll.h>
#include <cstdlib>

TEST(PipeCommand, JoinsBothDirectionsUntilEachHasEnded)
{
    const ky::test::TemporaryFolder folder;
    std::string question;
    for (int i = 0; question.size() < 1'000'000; ++i)
        question += std::to_string(i) + ' ';
    const std::string answer = question + question + std::string("\0", 1);
    folder.write("question", question);
    folder.write("answer", answer);
    const std::string script =
        "cd \"$TMPDIR\"; KY=" KY_COMMAND
        "; $KY pipe serve name < answer > asked & "
        "until $KY pipe connect name < question 2> errors; do kill -0 $! || exit 9; done; wait $!";
    const auto inFolder = [&] { ::setenv("TMPDIR", folder.path("").c_str(), 1); };
    auto result = ky::test::RunCommand({"timeout", "60", "sh", "-c", script}, {}, inFolder);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(result.out == answer && ky::test::Content(folder.path("asked")) == question);

    for (const std::string& verb : {std::string("connect"), std::string("serve")}) {
        result = ky::test::RunCommand({KY_COMMAND, "pipe", verb, "none/name"}, {}, inFolder);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_NE(result.err.find("none/name. System error : '(2) ENOENT "), std::string::npos)
            << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST(PipeCommand, FailsWhenThePeerLeavesBytesBehind)
{
    ky::test::ExpectChildPasses([] {
        const ky::test::TemporaryFolder folder;
        ::setenv("TMPDIR", folder.path("").c_str(), 1);
        ky::kyNamedPipeServer server;
        ASSERT_TRUE(server.listenUtf8("name"));
        std::thread peer([&server] {
            ASSERT_TRUE(server.waitForNewConnection(60000, nullptr));
            pollfd end = {server.editClients().front()->getSocket(), POLLRDHUP, 0};
            EXPECT_EQ(::poll(&end, 1, 60000), 1) << "all is sent, and the end of the stream";
            server.editClients().clear();
        });
        const auto result = ky::test::RunCommand(
            {"timeout", "60", KY_COMMAND, "pipe", "connect", "name"}, std::string(1000, 'x'));
        peer.join();
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, "ky: The peer has closed the pipe before it has taken all\n");
    });
}

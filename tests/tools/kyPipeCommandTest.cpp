#include "ky/kyNamedPipe.h"

#include "tools/Shell.h"

#include <gtest/gtest.h>

#include <thread>

#include <poll.h>
#include <cstdlib>

using ky::test::Content;
using ky::test::TemporaryFolder;

TEST(PipeCommand, JoinsBothDirectionsUntilEachHasEnded)
{
    const TemporaryFolder folder;
    std::string question;
    for (int i = 0; question.size() < 1'000'000; ++i)
        question += std::to_string(i) + ' ';
    folder.write("question", question);
    const std::string answer = Content(folder.write("answer", question + question + '\0'));
    const auto result = RunShell(
        folder,
        "ky pipe serve name < answer > asked & "
        "until ky pipe connect name < question 2> errors; do kill -0 $! || exit 9; done; wait $!");
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(result.out == answer && Content(folder.path("asked")) == question);
    for (const std::string verb : {"connect", "serve"})
        ExpectShell(folder, {{"ky pipe " + verb + " none/name",
                              1,
                              "",
                              {"none/name. System error : '(2) ENOENT "}}});
}

TEST(PipeCommand, FailsWhenThePeerLeavesBytesBehind)
{
    ky::test::ExpectChildPasses([] {
        const TemporaryFolder folder;
        ::setenv("TMPDIR", folder.path("").c_str(), 1);
        ky::kyNamedPipeServer server;
        ASSERT_TRUE(server.listenUtf8("name"));
        std::thread peer([&server] {
            ASSERT_TRUE(server.waitForNewConnection(60000, nullptr));
            pollfd end = {server.editClients().front()->getSocket(), POLLRDHUP, 0};
            EXPECT_EQ(::poll(&end, 1, 60000), 1) << "all is sent, and the end of the stream";
            server.editClients().clear();
        });
        const auto result = RunShell(folder, "ky pipe connect name", std::string(1000, 'x'));
        peer.join();
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, "ky: The peer has closed the pipe before it has taken all\n");
    });
}

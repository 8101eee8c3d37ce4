#include "support/Child.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <cstdlib>

using ky::test::Contains;

namespace {

/// The output of a script that has D for the program and knows how to wait for a daemon.
std::string RunScript(const ky::test::TemporaryFolder& folder, const std::string& script)
{
    const std::string words =
        "cd \"$TMPDIR\"; D=" KY_EXAMPLE_DAEMON
        "; until_tells() { until $D $1 status 2>&1 | grep -q \"$2\"; do kill -0 $! || exit 9; done;"
        " }\n";
    const auto result =
        ky::test::RunCommand({"timeout", "100", "sh", "-c", words + script}, {},
                             [&] { ::setenv("TMPDIR", folder.path("").c_str(), 1); });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.out;
}

}  // namespace

TEST(DaemonExample, DoesWhatItIsAskedAndEndsCleanly)
{
    const ky::test::TemporaryFolder folder;
    for (const char* name : {"home", "work", "other"})
        std::filesystem::create_directory(folder.path(name));
    folder.write("work/a.html", "1\n2\n");
    folder.write("work/b", "3\nno end");
    folder.write("other/c.css", "");
    const std::string settings = folder.write(
        "home/daemon.ini",
        "[scan]\nfolder = work\n[control]\npipe = inventory\n[limits]\nparent = true\n");
    EXPECT_EQ(RunScript(folder,
                        "$D home & until_tells home 'work: 2 files, 12 bytes, 3 lines'\n"
                        "$D home status | tail -n 2\n"
                        "$D home 2> second; echo $?\n"
                        "sed -i s,work,other, home/daemon.ini; $D home reload\n"
                        "until_tells home 'other: 1 files'\n"
                        "cp home/daemon.ini good; echo wrong >> home/daemon.ini\n"
                        "echo reload | " KY_COMMAND " pipe connect inventory\n"
                        "cp good home/daemon.ini; $D home stop; wait $!; echo $?"),
              "1 of no known type\n1 text/html\n1\ndone\n"
              "wrong settings, see the log; going on with the old ones\nstopping\n0\n");
    EXPECT_TRUE(Contains(ky::test::Content(folder.path("second")), "Fail to acquire lock"));
    EXPECT_TRUE(Contains(ky::test::Content(folder.path("home/daemon.log")), " : ended\n"));

    // Its parent leaves, and the second one, with the settings that it brings along, is told to go.
    EXPECT_EQ(RunScript(folder,
                        "( $D home & until_tells home files )\n"
                        "while [ -e home/daemon.lock ]; do :; done\n"
                        "$D new & until_tells new 'idle\\|scanning'; kill $!; wait $!; echo $?"),
              "0\n");
    for (const char* name : {"home/daemon.lock", "inventory", "new/daemon.lock", "ky-daemon"})
        EXPECT_FALSE(std::filesystem::exists(folder.path(name))) << name;
}

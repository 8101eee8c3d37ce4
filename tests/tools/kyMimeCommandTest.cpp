#include "support/Child.h"

#include <gtest/gtest.h>

using ky::test::RunCommand;

TEST(MimeCommand, PrintsTypeFlagAndNameAndTellsWhatIsNotKnown)
{
    const auto known = RunCommand({KY_COMMAND, "mime", "a b/photo.JPG", "gz", "x.js.map"});
    EXPECT_EQ(known.exitCode, 0);
    EXPECT_EQ(known.out,
              "image/jpeg\tcompressed\ta b/photo.JPG\n"
              "application/gzip\tcompressed\tgz\n"
              "application/json\tcompressible\tx.js.map\n");
    const auto unknown = RunCommand({KY_COMMAND, "mime", "--", "-a.css", "caf\xe9"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_EQ(unknown.out, "text/css\tcompressible\t-a.css\n-\t-\tcaf\xe9\n");
    EXPECT_EQ(RunCommand({KY_COMMAND, "mime"}).exitCode, 2);
    const auto full = RunCommand({"sh", "-c", "exec \"$0\" mime png > /dev/full", KY_COMMAND});
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_NE(full.err, "");
}

#include "support/Child.h"

#include <gtest/gtest.h>

using ky::test::RunCommand;

TEST(MimeCommand, PrintsTypeFlagAndNameAndTellsWhatIsNotKnown)
{
    const auto known = RunCommand({KY_COMMAND, "mime", "a b/photo.JPG", "x.js.map"});
    EXPECT_EQ(known.exitCode, 0);
    const auto unknown = RunCommand({KY_COMMAND, "mime", "--", "-a.css", "gz", "caf\xe9"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_EQ(known.out + unknown.out,
              "image/jpeg\tcompressed\ta b/photo.JPG\napplication/json\tcompressible\tx.js.map\n"
              "text/css\tcompressible\t-a.css\napplication/gzip\tcompressed\tgz\n"
              "-\t-\tcaf\xe9\n");
    const auto full = RunCommand({"sh", "-c", "exec \"$0\" mime png > /dev/full", KY_COMMAND});
    EXPECT_EQ(full.exitCode, 1);
}

#include "tools/Shell.h"

#include <gtest/gtest.h>

TEST(MimeCommand, PrintsTypeFlagAndNameAndTellsWhatIsNotKnown)
{
    ky::test::ExpectShell(
        {}, {{"ky mime 'a b/photo.JPG' x.js.map", 0,
              "image/jpeg\tcompressed\ta b/photo.JPG\napplication/json\tcompressible\tx.js.map\n"},
             {"ky mime -- -a.css caf\xe9", 1, "text/css\tcompressible\t-a.css\n-\t-\tcaf\xe9\n"},
             {"ky mime png > /dev/full", 1, "", {"ky: Cannot write to standard output. "}}});
}

#include "tools/Shell.h"

#include <gtest/gtest.h>

TEST(IniCommand, ReadsChangesListsAndChecks)
{
    const ky::test::TemporaryFolder folder;
    const std::string bad = folder.write("bad.ini", "k=1\n\nno line\n");
    const std::string paths = folder.write("paths.ini", "; kept\n[s]\np=C:\\dir\n");
    const std::string badLine = "ky: bad.ini: Invalid line (3) no line in Ini file";
    const std::string notKept = ": The format cannot keep the value of ";
    ky::test::ExpectShell(
        folder,
        {{"ky ini get new.ini k", 1, "", {"ky: Fail to open new.ini"}},
         {"ky ini set new.ini k 'a b'; ky ini set new.ini s/t/number -- -5"},
         {"ky ini set new.ini General/gr\u00f6\u00dfe '\u00e4\n\"b\\'"},
         {"ky ini get new.ini s/t/number; ky ini get new.ini General/k", 0, "-5\na b\n"},
         {"ky ini get new.ini s", 1, "", {"ky: new.ini: There is no key s"}},
         {"ky ini set new.ini k/below 1", 1, "", {"ky: new.ini: No value can stand at k/below"}},
         {"ky ini set new.ini 's /[x' 1", 1, "", {"ky: new.ini: No value can stand at s /[x"}},
         {"ky ini list new.ini", 0, "gr\u00f6\u00dfe=\u00e4\\n\"b\\\\\nk=a b\ns/t/number=-5\n"},
         {"ky ini list new.ini s", 0, "s/t/number=-5\n"},
         {"ky ini list new.ini k", 1, "", {"ky: new.ini: There is no section k"}},
         {"ky ini unset new.ini x", 1, "", {"ky: new.ini: There is no key x"}},
         {"ky ini unset new.ini s"},
         {"ky ini check new.ini bad.ini none", 1, "", {badLine, "ky: Fail to open none"}},
         {"ky ini set new.ini k ' b'", 1, "", {"ky: new.ini" + notKept + "k"}},
         {"ky ini set new.ini k '\"\\n'", 1, "", {"ky: new.ini" + notKept + "k"}},
         {"ky ini set paths.ini k 2", 1, "", {"ky: paths.ini" + notKept + "p"}},
         {"ky ini set bad.ini k 2", 1, "", {badLine}},
         {"ky ini set no/f k 2", 1, "", {"ky: Fail to open no/f, System error : '(2) ENOENT "}},
         {"cat new.ini", 0, "[General]\ngr\u00f6\u00dfe=\"\u00e4\\n\\\"b\\\\\"\nk=a b\n"}});
    EXPECT_EQ(ky::test::Content(bad), "k=1\n\nno line\n");
    EXPECT_EQ(ky::test::Content(paths), "; kept\n[s]\np=C:\\dir\n");
}

#include "support/Child.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <unistd.h>

using ky::test::Content;
using ky::test::TemporaryFolder;

TEST(IniCommand, ReadsChangesListsAndChecks)
{
    const TemporaryFolder folder;
    folder.write("bad.ini", "k=1\n\nno line\n");
    const std::string paths = "; kept\n[s]\np=C:\\dir\n";
    folder.write("paths.ini", paths);
    const std::string notKept = ": The format cannot keep the value of ";
    const struct {
        std::vector<std::string> arguments;
        int exitCode;
        std::string out;
        std::string err;
    } rows[] = {
        {{"get", "new.ini", "k"}, 1, "", "ky: Fail to open new.ini\n"},
        {{"set", "new.ini", "k", "a b"}, 0, "", ""},
        {{"set", "new.ini", "s/t/number", "--", "-5"}, 0, "", ""},
        {{"set", "new.ini", "General/gr\u00f6\u00dfe", "\u00e4\n\"b\\"}, 0, "", ""},
        {{"get", "new.ini", "s/t/number"}, 0, "-5\n", ""},
        {{"get", "new.ini", "General/k"}, 0, "a b\n", ""},
        {{"get", "new.ini", "gr\u00f6\u00dfe"}, 0, "\u00e4\n\"b\\\n", ""},
        {{"get", "new.ini", "s"}, 1, "", "ky: new.ini: There is no key s\n"},
        {{"set", "new.ini", "k/below", "1"}, 1, "", "ky: new.ini: No value can stand at k/below\n"},
        {{"set", "new.ini", "a=b", "1"}, 1, "", "ky: new.ini: No value can stand at a=b\n"},
        {{"set", "new.ini", "s /[x", "1"}, 1, "", "ky: new.ini: No value can stand at s /[x\n"},
        {{"list", "new.ini"}, 0, "gr\u00f6\u00dfe=\u00e4\\n\"b\\\\\nk=a b\ns/t/number=-5\n", ""},
        {{"list", "new.ini", "s"}, 0, "s/t/number=-5\n", ""},
        {{"list", "new.ini", "k"}, 1, "", "ky: new.ini: There is no section k\n"},
        {{"unset", "new.ini", "x"}, 1, "", "ky: new.ini: There is no key x\n"},
        {{"unset", "new.ini", "s"}, 0, "", ""},
        {{"check", "new.ini", "bad.ini", "none"},
         1,
         "",
         "ky: bad.ini: Invalid line (3) no line in Ini file\nky: Fail to open none\n"},
        {{"check", "new.ini"}, 0, "", ""},
        {{"set", "new.ini", "k", " b"}, 1, "", "ky: new.ini" + notKept + "k\n"},
        {{"set", "new.ini", "k", "\"\\n"}, 1, "", "ky: new.ini" + notKept + "k\n"},
        {{"set", "paths.ini", "k", "2"}, 1, "", "ky: paths.ini" + notKept + "p\n"},
        {{"set", "bad.ini", "k", "2"},
         1,
         "",
         "ky: bad.ini: Invalid line (3) no line in Ini file\n"},
        {{"set", "none/new.ini", "k", "2"},
         1,
         "",
         "ky: Fail to open none/new.ini, System error : '(2) ENOENT No such file or directory'\n"},
    };
    for (const auto& row : rows) {
        std::vector<std::string> command = {KY_COMMAND, "ini"};
        command.insert(command.end(), row.arguments.begin(), row.arguments.end());
        const auto result = ky::test::RunCommand(
            command, "", [&] { static_cast<void>(::chdir(folder.path("").c_str())); });
        SCOPED_TRACE(row.arguments[0] + " " + row.arguments[1]);
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_EQ(result.out, row.out);
        EXPECT_EQ(result.err, row.err);
    }
    EXPECT_EQ(Content(folder.path("new.ini")),
              "[General]\ngr\u00f6\u00dfe=\"\u00e4\\n\\\"b\\\\\"\nk=a b\n");
    EXPECT_EQ(Content(folder.path("bad.ini")), "k=1\n\nno line\n");
    EXPECT_EQ(Content(folder.path("paths.ini")), paths);
    EXPECT_EQ(ky::test::RunCommand({KY_COMMAND, "ini", "set", "f", "k"}).exitCode, 2);
}

#include "process/ProcessSupport.h"

#include <filesystem>

using ky::kyProcess;
using ky::test::Process;
using ky::test::Words;

TEST_F(Process, StartsACommandLineInTheFolderOfItsProgram)
{
    const std::string program = folder.write("a program", "echo \"$PWD|$1|$2\"");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    const std::string printed = ky::test::PrintedBy([&] {
        EXPECT_TRUE(kyProcess::StartDetachedUtf8("\"" + program + "\" one\t\"t \\\"wo\\\"\""));
        EXPECT_FALSE(kyProcess::StartDetachedUtf8("true")) << "PATH was searched";
    });
    EXPECT_EQ(printed, std::filesystem::path(program).parent_path().string() + "|one|t \"wo\"\n");
}

TEST_F(Process, SplitsCommandLines)
{
    const struct {
        std::string line;
        Words words;  // none where it fails
    } rows[] = {
        {"prog a  b\t c\n ", {"prog", "a", "b", "c\n"}},
        {" \"my prog\" \"\" 'x y'", {"my prog", "", "'x", "y'"}},
        {"\"p\"a \"b\"\"c\"", {"p", "a", "b", "c"}},
        {R"(p "a\\"b" e\f)", {"p", "a\\\"b", "e\\f"}},
        {"p \"a", {}},
        {"p a\"b", {}},
        {"\"\" a", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        std::string program = "old";
        Words words = {"old"};
        EXPECT_EQ(kyProcess::SplitCommandLine(row.line, program, words), !row.words.empty());
        words.insert(words.begin(), program);
        EXPECT_EQ(words, row.words.empty() ? Words{""} : row.words);
    }
    std::string program;
    Words words;
    ky::test::CaughtStream output(std::cout);
    kyProcess::SplitCommandLine("a\"b", program, words);
    EXPECT_TRUE(
        output.take().ends_with(" : Fail to split command line : 'a\"b' : Bad command line\n"));
}

#include "ky/kyDirUtils.h"

#include "support/Child.h"
#include "support/Library.h"

#include <filesystem>
#include <random>

namespace fs = std::filesystem;
using ky::kyDirUtils;

namespace {

using PathText = ky::test::LightLibrary;

using Row = std::pair<std::string, std::string>;

template <typename Operation, std::size_t count>
void ExpectRows(Operation operation, const Row (&rows)[count])
{
    for (const auto& [path, expected] : rows)
        EXPECT_EQ(operation(path), expected) << "'" << path << "'";
}

}  // namespace

TEST_F(PathText, IsSimplified)
{
    ExpectRows(&kyDirUtils::SimplifyPath, {{"", ""},
                                           {R"(\\server\share\.\x)", "//server/share/x"},
                                           {"a/../", "."},
                                           {"//../a/..", "//"},
                                           {"/..//./a/", "/a/"},
                                           {"a/b/../../../..", "../.."},
                                           {"a/.", "a"},
                                           {std::string("a\0/../b", 7), "b"}});
    // No rule may depend on where in the path it is applied.
    std::mt19937 draw(20);
    const std::string pieces[] = {"/", "/", ".", "..", "a", "bc"};
    for (int i = 0; i < 20000; ++i) {
        std::string path = "/x";
        for (auto count = draw() % 12; count > 0; --count)
            path += pieces[draw() % std::size(pieces)];
        path += "/x";
        ASSERT_EQ(kyDirUtils::SimplifyPath(path), fs::path(path).lexically_normal()) << path;
    }
}

TEST_F(PathText, IsJoinedByOneSeparator)
{
    ExpectRows([](const std::string& path) { return kyDirUtils::JoinPath("a/", path); },
               {{"/b", "a/b"}, {"b", "a/b"}, {"", "a/"}, {R"(\b)", "a/b"}, {"//b", "a//b"}});
    ExpectRows([](const std::string& path) { return kyDirUtils::JoinPath(path, "b"); },
               {{"", "b"}, {"a", "a/b"}, {R"(a\)", R"(a\b)"}, {"a//", "a//b"}});
    EXPECT_EQ(kyDirUtils::JoinPath("", "a", "/b", "c"), "a/b/c");
}

TEST_F(PathText, IsCutAtItsLastSeparator)
{
    ExpectRows(&kyDirUtils::GetParentPathUtf8,
               {{"", ""}, {"a/", ""}, {"/a/", "/"}, {"//a", "//"}, {R"(/a\b\)", "/a"}});
    ExpectRows(&kyDirUtils::ExtractFolder,
               {{"a", ""}, {"/a", ""}, {"a/", "a"}, {R"(a\b\c)", "a/b"}});
    ExpectRows(&kyDirUtils::ExtractFileBaseName,
               {{"a/b.tar.gz", "b.tar"}, {R"(a.b\c)", "c"}, {".bashrc", ".bashrc"}, {"a/", ""}});
    std::string name = R"(a\b\c)";
    kyDirUtils::SplitFolderFilename(name, name, name);
    EXPECT_EQ(name, "c");
    name = std::string("a\"*/:<>?\\|b.\n\0c", 16);
    kyDirUtils::GenerateValidFileName(name, '_');
    EXPECT_EQ(name, std::string("a_________b.\n\0c", 16));
}

TEST_F(PathText, EndsInAnExtension)
{
    ExpectRows([](const auto& path) { return kyDirUtils::ExtractFileExtension(path, true, 0); },
               {{"a.tar.GZ", "gz"}, {".profile", ""}, {"x.y/name", ""}, {R"(x\a.b)", "b"}});
    ExpectRows(
        [](const auto& path) { return kyDirUtils::ExtractFileExtension(path, true, 2); },
        {{"A.T\u00c4R.GZ", "t\u00c4r.gz"}, {".a.b.c.d", "c.d"}, {"a..b", ".b"}, {"..b", "b"}});
}

TEST_F(PathText, BecomesAbsoluteThoughItsEndDoesNotExist)
{
    const ky::test::TemporaryFolder folder;
    const std::string root = folder.path("root");
    fs::create_directories(root + "/real/sub");
    fs::create_directory_symlink("real", root + "/link");
    ky::test::ExpectChildPasses([&] {
        fs::current_path(root);
        const struct {
            std::string path, base, expected;
        } rows[] = {
            {"", "", root},
            {"link/sub/", "", root + "/real/sub"},
            {"sub/../new", root + "/link", root + "/real/new"},
            // kept: what does not exist is appended as it is.
            {"no/../no", root + "/link/", root + "/real/no/../no"},
            {"x", "/no", "/no/x"},
            // kept: an absolute path does not have its links resolved.
            {root + "/link/.", "base", root + "/link"},
            {"C:/x/../y", "base", "C:/y"},
        };
        for (const auto& row : rows)
            EXPECT_EQ(kyDirUtils::GetAbsolutePathUtf8(row.path, row.base), row.expected)
                << row.path << " against " << row.base;
        fs::remove_all(root);
        EXPECT_EQ(kyDirUtils::GetAbsolutePathUtf8("x"), "");
        EXPECT_EQ(kyDirUtils::GetCurrentWorkingDirUtf8(), "");
    });
}

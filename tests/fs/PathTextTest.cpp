#include "ky/kyDirUtils.h"

#include "support/Child.h"
#include "support/Library.h"

#include <filesystem>
#include <random>

namespace fs = std::filesystem;
using ky::kyDirUtils;

namespace {

struct PathText : ky::test::LightLibrary {};

struct Row {
    std::string path;
    std::string expected;
};

template <typename Operation, std::size_t count>
void ExpectRows(Operation operation, const Row (&rows)[count])
{
    for (const Row& row : rows)
        EXPECT_EQ(operation(row.path), row.expected) << "'" << row.path << "'";
}

/// What std::filesystem makes of it, but for what differs on purpose.
std::string Normal(const std::string& path)
{
    const bool isNetwork = path.starts_with("//");
    const std::size_t rootSize = isNetwork ? 2 : 1;
    // Slashes at the start are one to it.
    const std::size_t names = isNetwork ? path.find_first_not_of('/') : 0;
    std::string result =
        fs::path((isNetwork ? "/" : "") + path.substr(std::min(names, path.size())))
            .lexically_normal()
            .string();
    if (isNetwork)
        result.insert(0, "/");
    const std::string last = fs::path(path).filename().string();
    if ((last == "." || last == "..") && result.size() > rootSize && result.back() == '/')
        result.pop_back();
    if (result.ends_with("..") && path.ends_with('/'))
        result.push_back('/');
    return result == "./" ? "." : result;
}

}  // namespace

TEST_F(PathText, IsSimplified)
{
    ExpectRows(&kyDirUtils::SimplifyPath, {{"", ""},
                                           {R"(\\server\share\.\x)", "//server/share/x"},
                                           {"a/../", "."},
                                           {"//../a/..", "//"},
                                           {std::string("a\0/../b", 7), "b"}});
    // No rule may depend on where in the path it is applied.
    std::mt19937 draw(20);
    const std::string pieces[] = {"/", "/", ".", "..", "a", "bc"};
    for (int i = 0; i < 20000; ++i) {
        std::string path;
        for (auto count = draw() % 12; count > 0; --count)
            path += pieces[draw() % std::size(pieces)];
        ASSERT_EQ(kyDirUtils::SimplifyPath(path), Normal(path)) << path;
    }
}

TEST_F(PathText, IsJoinedByOneSeparator)
{
    const struct {
        std::string a, b, expected;
    } rows[] = {{"a", "b", "a/b"},         {"a/", "/b", "a/b"},      {"a/", "b", "a/b"},
                {"a", R"(\b)", R"(a\b)"},  {"", "b", "b"},           {"a", "", "a"},
                {R"(a\)", "/b", R"(a\b)"}, {R"(a\)", "b", R"(a\b)"}, {"a//", "//b", "a///b"}};
    for (const auto& row : rows)
        EXPECT_EQ(kyDirUtils::JoinPath(row.a, row.b), row.expected);
    EXPECT_EQ(kyDirUtils::JoinPath("", "a", "/b", "c"), "a/b/c");
}

TEST_F(PathText, IsCutAtItsLastSeparator)
{
    ExpectRows(&kyDirUtils::GetParentPathUtf8, {{"", ""},
                                                {"a", ""},
                                                {"a/", ""},
                                                {"/", "/"},
                                                {"/a/", "/"},
                                                {"//a", "//"},
                                                {"a//./b", "a/."},
                                                {R"(/a\b\)", "/a"}});
    ExpectRows(&kyDirUtils::ExtractFolder,
               {{"a", ""}, {"/a", ""}, {"a/", "a"}, {R"(a\b\c)", "a/b"}, {"a//b", "a/"}});
    ExpectRows(&kyDirUtils::ExtractFileBaseName, {{"a/b.tar.gz", "b.tar"},
                                                  {R"(a.b\c)", "c"},
                                                  {".bashrc", ".bashrc"},
                                                  {".a.b", ".a"},
                                                  {"a.", "a"},
                                                  {"a/", ""}});
    std::string path = R"(a\b\c)";
    std::string name;
    kyDirUtils::SplitFolderFilename(path, path, name);
    EXPECT_EQ(path + ", " + name, "a/b, c");
}

TEST_F(PathText, EndsInAnExtension)
{
    const struct {
        std::string path;
        int maxParts;
        std::string expected;
    } rows[] = {{"archive.tar.gz", 1, "gz"},
                {"archive.tar.gz", 9, "tar.gz"},
                {"a.gz", -1, "gz"},
                {".profile", 1, ""},
                {".a.b.c", 9, "b.c"},
                {"x.y/name", 1, ""},
                {R"(x\a.b)", 1, "b"},
                {"a..b", 2, ".b"},
                {"..b", 2, "b"}};
    for (const auto& row : rows)
        EXPECT_EQ(kyDirUtils::ExtractFileExtension(row.path, false, row.maxParts), row.expected)
            << row.path;
    EXPECT_EQ(kyDirUtils::ExtractFileExtension("A.T\u00c4R.GZ", true, 2), "t\u00c4r.gz");
}

TEST_F(PathText, BecomesAValidFileName)
{
    const std::string name("a\"*/:<>?\\|b.\n\0c", 16);
    EXPECT_EQ(kyDirUtils::GenerateValidFileName(name, '_'), std::string("a_________b.\n\0c", 16));
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
            {"new/x/../y/", "", root + "/new/y/"},
            {R"(link\new)", "", root + "/real/new"},
            {"sub/../new", root + "/link", root + "/real/new"},
            // kept: what does not exist is appended as it is.
            {"no/../no", root + "/link/", root + "/real/no/../no"},
            {"x", "/no", "/no/x"},
            {"x", "//no", "/no/x"},
            // kept: an absolute path does not have its links resolved.
            {root + "/link/.", "base", root + "/link"},
            {"//server/../x", "", "//x"},
            {"C:/x/../y", "base", "C:/y"},
            {R"(C:\x)", "", root + "/C:/x"},
        };
        for (const auto& row : rows)
            EXPECT_EQ(kyDirUtils::GetAbsolutePathUtf8(row.path, row.base), row.expected)
                << row.path << " against " << row.base;
        fs::create_directory(root + "/gone");
        fs::current_path(root + "/gone");
        fs::remove(root + "/gone");
        EXPECT_EQ(kyDirUtils::GetAbsolutePathUtf8("x"), "");
        EXPECT_EQ(kyDirUtils::GetCurrentWorkingDirUtf8(), "");
    });
}

#include "support/Child.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>

using ky::test::Contains;
using ky::test::Content;
using ky::test::Lines;
using ky::test::RunCommand;
using ky::test::TemporaryFolder;
namespace fs = std::filesystem;

namespace {

const std::string sAllTenths = "10%\n20%\n30%\n40%\n50%\n60%\n70%\n80%\n90%\n100%\n";

std::string EmptyFolder(const TemporaryFolder& folder, const std::string& name)
{
    fs::create_directories(folder.path(name));
    return folder.path(name);
}

}  // namespace

TEST(TreeCommand, CopiesWhateverTheNamesLinksAndSizesAre)
{
    const TemporaryFolder folder;
    const std::string source = EmptyFolder(folder, "source");
    EmptyFolder(folder, "source/folder/below");
    EmptyFolder(folder, "source/closed");
    const std::string names[] = {"plain",     "folder/caf\xc3\xa9",  "bad\xff bytes",
                                 "new\nline", std::string(255, 'n'), "closed/inside"};
    for (const std::string& name : names)
        folder.write("source/" + name, "of " + name);
    const std::string big = std::string(9 << 20, 'b') + "end";
    folder.write("source/big", big);
    folder.write("source/empty", "");
    const std::string hole = std::string(40 << 20, '\0') + "end";
    const std::string sparse = folder.write("source/sparse", "");
    fs::resize_file(sparse, 40 << 20);
    std::ofstream(sparse, std::ios::app) << "end";
    const std::string targets[] = {"/", ".", "..", "missing"};
    for (std::size_t i = 0; i < std::size(targets); ++i)
        fs::create_symlink(targets[i], source + "/link" + std::to_string(i));
    ::mkfifo((source + "/pipe").c_str(), 0600);
    ::chmod((source + "/plain").c_str(), 0640);
    ::chmod((source + "/closed").c_str(), 0555);

    // In the C locale none of the odd names exists for the library.
    const std::string destination = folder.path("made/on the way");
    const auto result = RunCommand({KY_COMMAND, "tree", "copy", source, destination}, "",
                                   [] { ::setenv("LC_ALL", "C", 1); });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, sAllTenths);
    EXPECT_EQ(Lines(result.err).size(), 1u) << result.err;
    EXPECT_TRUE(Contains(result.err, "no file, folder or link: " + source + "/pipe. "))
        << result.err;

    for (const std::string& name : names)
        EXPECT_EQ(Content(destination + "/" + name), "of " + name);
    EXPECT_TRUE(Content(destination + "/big") == big);
    EXPECT_TRUE(Content(destination + "/sparse") == hole);
    struct stat status = {};
    ::stat((destination + "/sparse").c_str(), &status);
    EXPECT_LT(status.st_blocks, 2048);
    EXPECT_EQ(fs::status(destination + "/plain").permissions(), fs::perms(0640));
    EXPECT_EQ(fs::status(destination + "/closed").permissions(), fs::perms(0555));
    for (const std::string& tree : {source, destination})
        ::chmod((tree + "/closed").c_str(), 0755);
    const auto count = [](const std::string& path) {
        return std::distance(fs::recursive_directory_iterator(path), {});
    };
    EXPECT_EQ(count(destination), count(source) - 1);
    for (std::size_t i = 0; i < std::size(targets); ++i)
        EXPECT_EQ(fs::read_symlink(destination + "/link" + std::to_string(i)), targets[i]);
}

TEST(TreeCommand, ReplacesWhatExistsOnlyWhenAskedTo)
{
    const TemporaryFolder folder;
    const std::string source = EmptyFolder(folder, "source");
    EmptyFolder(folder, "source/folder");
    folder.write("source/file", "new");
    folder.write("source/blocked", "new");
    folder.write("source/folder/fresh", "new");
    const std::string destination = EmptyFolder(folder, "destination");
    EmptyFolder(folder, "destination/blocked/full");
    EmptyFolder(folder, "destination/folder");
    const std::string other = folder.write("other", "old");
    fs::create_hard_link(other, destination + "/file");

    const auto kept = RunCommand({KY_COMMAND, "tree", "copy", "-q", source, destination});
    EXPECT_EQ(kept.exitCode, 1);
    EXPECT_EQ(kept.out, "");
    EXPECT_EQ(Lines(kept.err).size(), 2u) << kept.err;
    EXPECT_TRUE(Contains(kept.err, "Cannot copy " + source + "/file. System error : '(17) EEXIST "))
        << kept.err;
    EXPECT_EQ(Content(destination + "/file"), "old");
    EXPECT_EQ(Content(destination + "/folder/fresh"), "new");

    const auto replaced = RunCommand({KY_COMMAND, "tree", "copy", "-o", source, destination});
    EXPECT_EQ(replaced.exitCode, 1);
    EXPECT_EQ(Lines(replaced.err).size(), 1u) << replaced.err;
    EXPECT_TRUE(Contains(replaced.err, "Cannot copy " + source + "/blocked. ")) << replaced.err;
    EXPECT_EQ(Content(destination + "/file"), "new");
    EXPECT_EQ(Content(other), "old") << "written through a hard link";
}

TEST(TreeCommand, RefusesToCopyAFolderIntoItself)
{
    const TemporaryFolder folder;
    const std::string source = EmptyFolder(folder, "source");
    EmptyFolder(folder, "source/inner");
    const std::string file = folder.write("file", "x");
    fs::create_symlink(source + "/inner", folder.path("link"));
    for (const std::string& destination :
         {source, source + "/inner/new/er", source + "/../source/x/", folder.path("link/y")}) {
        const auto result = RunCommand({KY_COMMAND, "tree", "copy", source, destination});
        EXPECT_EQ(result.exitCode, 1) << destination;
        EXPECT_TRUE(Contains(result.err, "the source or inside: " + destination)) << result.err;
    }
    EXPECT_TRUE(fs::is_empty(source + "/inner"));
    EXPECT_EQ(RunCommand({KY_COMMAND, "tree", "copy", file, folder.path("new")}).exitCode, 1);
    EXPECT_EQ(RunCommand({KY_COMMAND, "tree", "copy", source, file}).exitCode, 1);
    EXPECT_EQ(RunCommand({KY_COMMAND, "tree", "copy", source}).exitCode, 2);
    EXPECT_FALSE(fs::exists(folder.path("new")));
}

TEST(TreeCommand, CopiesTreesDeeperThanAnyPathWithFewDescriptors)
{
    const TemporaryFolder folder;
    const std::string source = EmptyFolder(folder, "source");
    constexpr int sDepth = 700;  // of 7 bytes each
    int last = ::open(source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < sDepth; ++i) {
        ::mkdirat(last, "folder", 0777);
        const int next = ::openat(last, "folder", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(std::exchange(last, next));
    }
    ::close(last);
    const std::string copy = folder.path("copy");
    const auto copied = RunCommand({KY_COMMAND, "tree", "copy", source, copy}, "", [] {
        const rlimit few = {64, 64};
        ::setrlimit(RLIMIT_NOFILE, &few);
    });
    EXPECT_EQ(copied.exitCode, 0) << copied.err;
    EXPECT_EQ(copied.out, sAllTenths);
    last = ::open(copy.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int depth = 0;
    for (int next = 0; next != -1; depth += next != -1) {
        next = ::openat(last, "folder", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(std::exchange(last, next));
    }
    EXPECT_EQ(depth, sDepth);
}

TEST(TreeCommand, StopsAtASignalAndLeavesNothingHalfWritten)
{
    const TemporaryFolder folder;
    EmptyFolder(folder, "source");
    const std::string destination = EmptyFolder(folder, "destination");
    fs::resize_file(folder.write("source/huge", ""), 1L << 36);
    // The signal goes out as soon as there is something half-written.
    const auto result = RunCommand(
        {"sh", "-c",
         "\"$0\" tree copy source destination & "
         "while kill -0 $! && [ -z \"$(ls -A destination)\" ]; do :; done; kill -TERM $!; wait $!",
         KY_COMMAND},
        "", [&] { static_cast<void>(::chdir(folder.path("").c_str())); });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "ky: Canceled\n");
    EXPECT_FALSE(Contains(result.out, "100%"));
    EXPECT_TRUE(fs::is_empty(destination));
}

TEST(TreeCommand, ClearsTheFolderThatIsMeant)
{
    const TemporaryFolder folder;
    const std::string tree = EmptyFolder(folder, "caf\xc3\xa9");
    for (int i = 0; i < 30; ++i)
        folder.write("caf\xc3\xa9/bad\xff" + std::to_string(i), "x");
    fs::create_symlink(tree, folder.path("to the tree"));
    for (const std::string& path : {tree, folder.path("to the tree")}) {
        folder.write("caf\xc3\xa9/file", "x");
        const auto result =
            RunCommand({KY_COMMAND, "tree", "clear", path}, "", [] { ::setenv("LC_ALL", "C", 1); });
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out, sAllTenths);
        EXPECT_TRUE(fs::is_empty(tree));
    }
    const auto missing = RunCommand({KY_COMMAND, "tree", "clear", folder.path("missing")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(Contains(
        missing.err, "ky: Cannot open " + folder.path("missing") + ". System error : '(2) ENOENT "))
        << missing.err;
}

TEST(TreeCommand, DrawsABarOnATerminal)
{
    const TemporaryFolder folder;
    folder.write("file", "x");
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(::grantpt(terminal) | ::unlockpt(terminal), 0);
    const int end = ::open(::ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const auto result = RunCommand({KY_COMMAND, "tree", "clear", folder.path("")}, "",
                                   [&] { ::dup2(end, STDOUT_FILENO); });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    // What a terminal gives comes in pieces, and ends with EIO once nobody has it open (pty(7)).
    ::close(end);
    std::string text;
    char buffer[4096];
    for (ssize_t size = 0; (size = ::read(terminal, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(size));
    EXPECT_EQ(text.find("\r[" + std::string(50, ' ') + "] 0%  "), 0u) << text;
    const std::string last = "\r[" + std::string(50, '=') + "] 100%  \r\n";
    EXPECT_EQ(text.rfind(last), text.size() - last.size()) << text;
    ::close(terminal);
}

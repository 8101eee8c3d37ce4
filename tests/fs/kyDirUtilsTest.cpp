#include "ky/kyDirUtils.h"

#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

/// Stands before the C library's function, whose answer changes while others write.
extern "C" int statvfs(const char* /*path*/, struct statvfs* system) noexcept
{
    system->f_bsize = 4096;
    system->f_bfree = 7;
    system->f_bavail = 5;
    return 0;
}

namespace fs = std::filesystem;
using ky::kyDirUtils;
using ky::test::Content;
using ky::test::ErrorText;

namespace {

struct DirUtils : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    std::string error = "of an earlier call";
};

}  // namespace

TEST_F(DirUtils, TellsWhatAnEntryIs)
{
    const std::string file = folder.write("file", "12345");
    fs::create_symlink("nowhere", folder.path("dangling"));
    const struct {
        std::string path;
        bool exists, isFile, isDir;
    } rows[] = {{file, true, true, false},
                {"/dev/null", true, false, false},
                {folder.path(""), true, false, true},
                {folder.path("dangling"), false, false, false},
                {file + std::string("\0", 1), false, false, false}};
    ky::kyFileInfoUtf8 info;
    for (const auto& row : rows) {
        info.path = row.path;
        kyDirUtils::GetFileInfoUtf8(info.path, info);
        EXPECT_TRUE(info.path == row.path && info.exists == row.exists &&
                    info.isFile == row.isFile && info.isDir == row.isDir)
            << row.path;
        EXPECT_EQ(kyDirUtils::FileExistsUtf8(row.path), row.exists) << row.path;
        EXPECT_EQ(kyDirUtils::DirExistsUtf8(row.path), row.isDir) << row.path;
        EXPECT_FALSE(kyDirUtils::IsNetworkPath(row.path)) << row.path;
    }
    const timespec times[] = {{1, 0}, {2, 0}};
    ::utimensat(AT_FDCWD, file.c_str(), times, 0);
    kyDirUtils::GetFileInfoUtf8(file, info);
    EXPECT_TRUE(info.accessTime == 1 && info.modificationTime == 2 && info.changeTime > 2 &&
                info.size == 5);
    auto other = info;
    other.accessTime = 9;
    EXPECT_TRUE(other == info) << "kept: read meanwhile";
}

TEST_F(DirUtils, CountsTheSpaceThatIsReservedForTheSuperUser)
{
    EXPECT_EQ(kyDirUtils::GetAvailableDiskSizeUtf8("/", error), 4096u * 7) << "kept";
    EXPECT_EQ(error, "");
}

TEST_F(DirUtils, FindsTheFoldersOfUserAndProcess)
{
    ky::test::ExpectChildPasses([&] {
        const std::string home = folder.path("h\u00f6me");
        EXPECT_TRUE(kyDirUtils::MkpathUtf8(home) && kyDirUtils::SetCurrentWorkingDirUtf8(home));
        EXPECT_EQ(kyDirUtils::GetCurrentWorkingDirUtf8(), home);
        ::setenv("HOME", home.c_str(), 1);
        EXPECT_EQ(kyDirUtils::GetDocumentsFolderUtf8(), home);
        EXPECT_EQ(kyDirUtils::GetAppDataFolderUtf8("\u00e4pp"), home + "/.\u00e4pp");
        ::unsetenv("HOME");
        EXPECT_EQ(kyDirUtils::GetDownloadFolderUtf8(), "./Downloads");
        ::setenv("TMPDIR", "/no/such/", 1);
        EXPECT_EQ(kyDirUtils::GetTempFolderUtf8(), "/no/such/");
        std::string own;
        EXPECT_TRUE(kyDirUtils::GetProcessFolderUtf8(own));
        EXPECT_EQ(own, fs::read_symlink("/proc/self/exe").parent_path().string());
    });
}

TEST_F(DirUtils, FailsRatherThanTakeAnotherNameInTheCLocale)
{
    ky::test::ExpectChildPassesInTheCLocale([&] {
        // What a conversion that gives something for everything would find.
        const std::string path = folder.path("\u00e9");
        for (const char* name : {"?", "e"})
            folder.write(name, "of somebody else");
        EXPECT_FALSE(kyDirUtils::MkpathUtf8(path));
        EXPECT_FALSE(kyDirUtils::CopyFileUtf8(folder.path("e"), path, true));
        EXPECT_FALSE(kyDirUtils::RenameFileUtf8(path, folder.path("f")));
        EXPECT_FALSE(kyDirUtils::RemoveFileUtf8(path));
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(kyDirUtils::GetTempFileUtf8(path, "x"), "");
        EXPECT_EQ(kyDirUtils::GetAbsolutePathUtf8("\u00e9"), "");
        ::setenv("HOME", path.c_str(), 1);
        EXPECT_EQ(kyDirUtils::GetPicturesFolderUtf8(), "");
        EXPECT_EQ(Content(folder.path("?")), "of somebody else");
    });
}

TEST_F(DirUtils, MakesTemporaryFilesOfItsOwn)
{
    const std::string file = kyDirUtils::GetTempFileUtf8(folder.path(""), "\u00fc-");
    EXPECT_EQ(file.compare(0, file.size() - 6, folder.path("/\u00fc-")), 0) << file;
    EXPECT_TRUE(fs::is_empty(file) && fs::status(file).permissions() == fs::perms(0600));
    // kept: the letters to replace are looked for at the end.
    EXPECT_EQ(kyDirUtils::GetTempFileUtf8(folder.path(""), "a", ".txt"), "");
    ::chmod(file.c_str(), 01400);
    EXPECT_TRUE(kyDirUtils::GrantAllFilePermissionsUtf8(file));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(01777));
}

TEST_F(DirUtils, MakesEveryMissingFolder)
{
    const std::string file = folder.write("file", "");
    fs::create_symlink("nowhere", folder.path("dangling"));
    for (const auto& [path, errorNumber] :
         {std::pair(folder.path("a//b/c/"), 0), std::pair(file, ENOTDIR),
          std::pair(file + "/x", ENOTDIR), std::pair(folder.path("dangling/x"), EEXIST),
          std::pair(folder.path("z") + std::string("\0b", 2), ENOENT)}) {
        errno = 0;
        EXPECT_EQ(kyDirUtils::MkpathUtf8(path), errorNumber == 0) << path;
        EXPECT_TRUE(errorNumber == 0 || errno == errorNumber) << path << errno;
    }
    EXPECT_TRUE(fs::is_directory(folder.path("a/b/c")));
    // Whoever is faster, all succeed.
    std::atomic<int> failures = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round)
                failures +=
                    !kyDirUtils::MkpathUtf8(folder.path(std::to_string(round) + "/d/d/d/d/d"));
        });
    threads.clear();
    EXPECT_EQ(failures, 0);
}

TEST_F(DirUtils, CopiesBytes)
{
    std::string bytes(3 * 8192 + 1, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 256);
    const std::string source = folder.write("source", bytes);
    const std::string destination = folder.write("destination", std::string(99999, 'x'));
    const std::string none = folder.path("none");
    fs::create_symlink(source, folder.path("link"));
    const struct {
        std::string source, destination;
        bool overwrite;
        std::string error;
    } rows[] = {
        // kept: the words blame the source.
        {source, destination, false, "source file is missing '" + source + "'"},
        {none, destination, true, "fail to open source file '" + none + "'"},
        {source, none + "/x", true, "fail to open destination file '" + none + "/x'"},
        {source, folder.path("link"), true, ""},
        {source, destination, true, ""},
        // kept: what cannot be read or written is no failure.
        {source, "/dev/full", true, ""},
        {folder.path(""), folder.path("empty"), true, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(kyDirUtils::CopyFileUtf8(row.source, row.destination, row.overwrite, &error),
                  row.error.empty());
        EXPECT_EQ(error, row.error);
    }
    EXPECT_TRUE(Content(source) == bytes && Content(destination) == bytes);
}

TEST_F(DirUtils, RenamesAndRemoves)
{
    const std::string full = folder.path("full");
    fs::create_directories(full + "/sub");
    EXPECT_TRUE(kyDirUtils::RenameFileUtf8(folder.write("old", ""), folder.path("new"), &error));
    EXPECT_FALSE(kyDirUtils::RenameFileUtf8(folder.path("old"), full, &error));
    EXPECT_EQ(error, "rename error " + ErrorText(ENOENT));
    EXPECT_FALSE(kyDirUtils::RemoveFileUtf8(full, &error));
    EXPECT_EQ(error, "remove error " + ErrorText(ENOTEMPTY) + " for '" + full + "'");
    for (const std::string& path : {full + "/sub", folder.path("new"), std::string()})
        EXPECT_TRUE(kyDirUtils::RemoveFileUtf8(path) && !fs::exists(path)) << path;
}

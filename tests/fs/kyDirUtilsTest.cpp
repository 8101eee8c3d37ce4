#include "ky/kyDirUtils.h"

#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

namespace fs = std::filesystem;
using ky::kyDirUtils;
using ky::test::Content;
using ky::test::ErrorText;
using ky::test::ExpectChildPasses;

namespace {

struct DirUtils : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    std::string error = "of an earlier call";
};

}  // namespace

TEST_F(DirUtils, TellsWhatAnEntryIs)
{
    const std::string file = folder.write("file", "12345");
    const std::string fifo = folder.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    fs::create_symlink("nowhere", folder.path("dangling"));
    const struct {
        std::string path;
        bool exists, isFile, isDir;
    } rows[] = {{file, true, true, false},
                {fifo, true, false, false},
                {folder.path(""), true, false, true},
                {folder.path("dangling"), false, false, false},
                {file + std::string("\0", 1), false, false, false},
                {"", false, false, false}};
    ky::kyFileInfoUtf8 info;
    for (const auto& row : rows) {
        kyDirUtils::GetFileInfoUtf8(row.path, info);
        EXPECT_EQ(info.path, row.path);
        EXPECT_TRUE(info.exists == row.exists && info.isFile == row.isFile &&
                    info.isDir == row.isDir)
            << row.path;
        EXPECT_EQ(kyDirUtils::FileExistsUtf8(row.path), row.exists) << row.path;
        EXPECT_EQ(kyDirUtils::DirExistsUtf8(row.path), row.isDir) << row.path;
        EXPECT_FALSE(kyDirUtils::IsNetworkPath(row.path)) << row.path;
    }
    struct timespec times[] = {{1, 0}, {2, 0}};
    ::utimensat(AT_FDCWD, file.c_str(), times, 0);
    info.path = file;
    kyDirUtils::GetFileInfoUtf8(info.path, info);
    EXPECT_EQ(info.path, file);
    EXPECT_EQ(info.accessTime, 1);
    EXPECT_EQ(info.modificationTime, 2);
    EXPECT_EQ(info.size, 5);
    EXPECT_GT(info.changeTime, 2);
    auto other = info;
    other.accessTime = 9;
    EXPECT_TRUE(other == info) << "read meanwhile";
    other.path += "/";
    EXPECT_TRUE(other != info);
}

TEST_F(DirUtils, CountsTheSpaceThatIsReservedForTheSuperUser)
{
    EXPECT_EQ(kyDirUtils::GetAvailableDiskSizeUtf8(folder.path("none"), error), 0u);
    EXPECT_EQ(error, "");
    // kept. Others write meanwhile.
    for (const char* path : {"/", "/tmp", "/var", "/home", "/boot"}) {
        struct statvfs system = {};
        ::statvfs(path, &system);
        const auto blockSize = static_cast<double>(system.f_bsize);
        const double reserved = blockSize * static_cast<double>(system.f_bfree - system.f_bavail);
        if (reserved < 64e6)
            continue;
        EXPECT_NEAR(static_cast<double>(kyDirUtils::GetAvailableDiskSizeUtf8(path, error)),
                    blockSize * static_cast<double>(system.f_bfree), reserved / 2);
        return;
    }
    GTEST_SKIP() << "No file system reserves enough for the super-user to tell";
}

TEST_F(DirUtils, FindsTheFoldersOfUserAndProcess)
{
    ExpectChildPasses([&] {
        const std::string home = folder.path("h\u00f6me");
        fs::create_directories(home);
        ::setenv("HOME", home.c_str(), 1);
        EXPECT_EQ(kyDirUtils::GetDocumentsFolderUtf8(), home);
        fs::create_directory(home + "/Documents");
        EXPECT_EQ(kyDirUtils::GetDocumentsFolderUtf8(), home + "/Documents");
        EXPECT_EQ(kyDirUtils::GetPicturesFolderUtf8(), home + "/Pictures");
        EXPECT_EQ(kyDirUtils::GetDownloadFolderUtf8(), home + "/Downloads");
        EXPECT_EQ(kyDirUtils::GetAppDataFolderUtf8("\u00e4pp"), home + "/.\u00e4pp");
        ::unsetenv("HOME");
        EXPECT_EQ(kyDirUtils::GetDocumentsFolderUtf8(), ".");

        ::setenv("TMPDIR", "/no/such/", 1);
        EXPECT_EQ(kyDirUtils::GetTempFolderUtf8(), "/no/such/");
        ::unsetenv("TMPDIR");
        EXPECT_EQ(kyDirUtils::GetTempFolderUtf8(), "/tmp");

        EXPECT_TRUE(kyDirUtils::SetCurrentWorkingDirUtf8(home));
        EXPECT_EQ(kyDirUtils::GetCurrentWorkingDirUtf8(), home);
        EXPECT_FALSE(kyDirUtils::SetCurrentWorkingDirUtf8(""));
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
        ::setenv("HOME", path.c_str(), 1);
        const std::function<bool()> operations[] = {
            [&] { return kyDirUtils::FileExistsUtf8(path); },
            [&] { return kyDirUtils::MkpathUtf8(path); },
            [&] { return kyDirUtils::GrantAllFilePermissionsUtf8(path); },
            [&] { return kyDirUtils::CopyFileUtf8(folder.path("e"), path, true); },
            [&] { return kyDirUtils::CopyFileUtf8(path, folder.path("f"), true); },
            [&] { return kyDirUtils::RenameFileUtf8(path, folder.path("f")); },
            [&] { return kyDirUtils::RemoveFileUtf8(path); },
            [&] { return !kyDirUtils::GetTempFileUtf8(path, "x").empty(); },
            [&] { return !kyDirUtils::GetAbsolutePathUtf8("\u00e9").empty(); }};
        for (const auto& operation : operations) {
            errno = 0;
            EXPECT_FALSE(operation()) << &operation - operations;
            EXPECT_EQ(errno, ENOENT) << &operation - operations;
        }
        EXPECT_EQ(kyDirUtils::GetPicturesFolderUtf8(), "");
        ::setenv("HOME", "/home", 1);
        EXPECT_EQ(kyDirUtils::GetAppDataFolderUtf8("\u00e9"), "/home/.\u00e9");
        EXPECT_EQ(Content(folder.path("?")), "of somebody else");
    });
}

TEST_F(DirUtils, MakesTemporaryFilesOfItsOwn)
{
    const std::string file = kyDirUtils::GetTempFileUtf8(folder.path(""), "\u00fc-");
    EXPECT_EQ(file.compare(0, file.size() - 6, folder.path("/\u00fc-")), 0) << file;
    EXPECT_TRUE(fs::is_empty(file));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
    // kept: the letters to replace are looked for at the end.
    EXPECT_EQ(kyDirUtils::GetTempFileUtf8(folder.path(""), "a", ".txt"), "");
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kyDirUtils::GetTempFileUtf8(folder.path("none"), "a"), "");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(DirUtils, MakesEveryMissingFolder)
{
    const std::string file = folder.write("file", "");
    fs::create_symlink("nowhere", folder.path("dangling"));
    const struct {
        std::string path;
        int errorNumber;
    } rows[] = {{folder.path("a//b/c/"), 0},
                {"", ENOENT},
                {file, ENOTDIR},
                {file + "/x", ENOTDIR},
                {folder.path("dangling/x"), EEXIST},
                {folder.path("z") + std::string("\0b", 2), ENOENT}};
    for (const auto& [path, errorNumber] : rows) {
        errno = 0;
        EXPECT_EQ(kyDirUtils::MkpathUtf8(path), errorNumber == 0) << path;
        EXPECT_TRUE(errorNumber == 0 || errno == errorNumber) << path << errno;
        EXPECT_EQ(fs::is_directory(path), errorNumber == 0) << path;
    }
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

TEST_F(DirUtils, GrantsAllPermissionsBesideThoseThatAreThere)
{
    const std::string file = folder.write("file", "");
    ::chmod(file.c_str(), 01400);
    EXPECT_TRUE(kyDirUtils::GrantAllFilePermissionsUtf8(file));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(01777));
    EXPECT_FALSE(kyDirUtils::GrantAllFilePermissionsUtf8(folder.path("none")));
}

TEST_F(DirUtils, CopiesBytes)
{
    std::string bytes(3 * 8192 + 1, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 256);
    const std::string source = folder.write("source", bytes);
    const std::string destination = folder.write("destination", std::string(99999, 'x'));
    const std::string none = folder.path("none");
    const std::string noParent = folder.path("none/x");
    fs::create_symlink(source, folder.path("link"));
    const int sealedFd = ::memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    const std::string sealed = "/proc/self/fd/" + std::to_string(sealedFd);
    std::ofstream(sealed) << "old";
    ::fcntl(sealedFd, F_ADD_SEALS, F_SEAL_SHRINK);
    const struct {
        std::string source, destination;
        bool overwrite;
        std::string error;
    } rows[] = {
        // kept: the words blame the source.
        {source, destination, false, "source file is missing '" + source + "'"},
        {none, destination, true, "fail to open source file '" + none + "'"},
        {source, noParent, true, "fail to open destination file '" + noParent + "'"},
        {source, sealed, true, "fail to open destination file '" + sealed + "'"},
        {source, source, true, ""},
        {source, folder.path("link"), true, ""},
        {source, destination, true, ""},
        {source, folder.path("new"), false, ""},
        // kept: what cannot be read or written is no failure.
        {source, "/dev/full", true, ""},
        {folder.path(""), folder.path("empty"), true, ""},
    };
    for (const auto& row : rows) {
        error = "of an earlier call";
        EXPECT_EQ(kyDirUtils::CopyFileUtf8(row.source, row.destination, row.overwrite, &error),
                  row.error.empty());
        EXPECT_EQ(error, row.error);
    }
    EXPECT_EQ(Content(sealed), "old") << "emptied by none and written over";
    ::close(sealedFd);
    for (const std::string& copy : {source, destination, folder.path("new")})
        EXPECT_TRUE(Content(copy) == bytes) << copy;
    EXPECT_TRUE(fs::is_empty(folder.path("empty")));
}

TEST_F(DirUtils, RenamesAndRemoves)
{
    const std::string file = folder.write("file", "");
    const std::string none = folder.path("none");
    const std::string full = folder.path("full");
    fs::create_directories(full + "/sub");
    EXPECT_TRUE(kyDirUtils::RenameFileUtf8(file, folder.path("new"), &error));
    EXPECT_EQ(error, "");
    EXPECT_FALSE(kyDirUtils::RenameFileUtf8(file, none, &error));
    EXPECT_EQ(error, "rename error " + ErrorText(ENOENT));
    for (const auto& [path, errorNumber] :
         {std::pair(full, ENOTEMPTY), std::pair(none, ENOENT), std::pair(full + "/sub", 0),
          std::pair(folder.path("new"), 0), std::pair(std::string(), 0)}) {
        const bool isRemoved = errorNumber == 0;
        EXPECT_EQ(kyDirUtils::RemoveFileUtf8(path, &error), isRemoved);
        EXPECT_TRUE(isRemoved || errno == errorNumber);
        EXPECT_EQ(error, isRemoved
                             ? ""
                             : "remove error " + ErrorText(errorNumber) + " for '" + path + "'");
        EXPECT_FALSE(isRemoved && fs::exists(path));
    }
}

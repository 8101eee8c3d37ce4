#include "support/Asleep.h"
#include "support/IniFile.h"

#include <atomic>
#include <filesystem>
#include <iterator>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;
using ky::test::Content;
using ky::test::ErrorText;
using ky::test::ExpectChildPasses;

namespace {

constexpr unsigned sNobody = 65534;
const std::string sExpected = "[General]\n\n[s]\n0=new\n1=new\n";

struct IniSave : ky::test::IniFile {
    static Map Numbered(const char* text, int count)
    {
        Map numbered;
        for (int i = 0; i < count; ++i)
            *numbered.editValuePath("s/" + std::to_string(i)) = text;
        return numbered;
    }
    IniSave() { map = Numbered("new", 2); }

    std::string save(const std::string& file) { return message(SaveIniFile(file, map, false)); }
    auto countFiles() const { return std::distance(fs::directory_iterator(folder.path("")), {}); }
};

}  // namespace

TEST_F(IniSave, KeepsLinksModeOwnerAndAttributes)
{
    const std::string file = folder.path("sub/file");
    const std::string chain = folder.path("chain");
    fs::create_directory(folder.path("sub"));
    fs::create_symlink("sub/file", folder.path("link"));
    fs::create_symlink(folder.path("link"), chain);
    const ::mode_t mask = ::umask(027);
    EXPECT_EQ(save(chain), "");  // which makes the file that a link promises
    ::umask(mask);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640));

    ::chmod(file.c_str(), 0604);
    EXPECT_TRUE(::geteuid() != 0 || ::chown(file.c_str(), sNobody, sNobody - 1) == 0);
    const bool hasAttributes = ::setxattr(file.c_str(), "user.ky", "value", 5, 0) == 0;
    struct stat before = {};
    struct stat after = {};
    ::stat(file.c_str(), &before);
    EXPECT_EQ(save(chain), "");
    ::stat(file.c_str(), &after);
    EXPECT_NE(after.st_ino, before.st_ino) << "not replaced";
    EXPECT_TRUE(after.st_mode == before.st_mode && after.st_uid == before.st_uid &&
                after.st_gid == before.st_gid);
    EXPECT_EQ(::getxattr(file.c_str(), "user.ky", nullptr, 0), hasAttributes ? 5 : -1);
    EXPECT_TRUE(fs::is_symlink(chain) && fs::is_symlink(folder.path("link")));
    EXPECT_EQ(Content(chain), sExpected);
}

TEST_F(IniSave, WritesInPlaceOnlyWhatCannotBeReplaced)
{
    ExpectChildPasses([&] {
        const std::string closed = folder.path("closed");
        fs::create_directory(closed);
        const std::string file = folder.write("closed/file", std::string(1000, 'x'));
        const std::string readOnly = folder.write("read-only", "old");
        ::chmod(file.c_str(), 0666);
        ::chmod(closed.c_str(), 0555);
        ::chmod(readOnly.c_str(), 0444);
        ::chmod(folder.path("").c_str(), 0777);
        EXPECT_TRUE(::geteuid() != 0 || (::setgid(sNobody) == 0 && ::setuid(sNobody) == 0));
        EXPECT_EQ(save(file), "");
        EXPECT_EQ(Content(file), sExpected);
        for (const std::string& refused : {readOnly, closed + "/new"})
            EXPECT_EQ(save(refused), "Fail to open " + refused + ", " + ErrorText(EACCES));
        EXPECT_EQ(Content(readOnly), "old");
        // Not as the super-user, who could put a file in its place.
        EXPECT_EQ(save("/dev/full"), "Fail to write /dev/full, " + ErrorText(ENOSPC));
        EXPECT_EQ(countFiles(), 2) << "something is left behind";
    });
    const std::string none = folder.path("none/file");
    EXPECT_EQ(save(none), "Fail to open " + none + ", " + ErrorText(ENOENT));
    const std::string special = folder.path("special");
    EXPECT_EQ(::mkfifo(special.c_str(), 0600), 0);
    const int pipe = ::open(special.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(save(special), "");
    ::close(pipe);
    EXPECT_TRUE(fs::is_fifo(special));
}

TEST_F(IniSave, WaitsForWhoeverWritesInPlaceToo)
{
    const int fd = ::open(folder.path("").c_str(), O_RDWR | O_CLOEXEC | O_TMPFILE, 0600);
    const std::string nameless = "/proc/self/fd/" + std::to_string(fd);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    EXPECT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
    std::thread saving = ky::test::StartUntilAsleep([&] { EXPECT_EQ(save(nameless), ""); });
    EXPECT_EQ(Content(nameless), "");
    lock.l_type = F_UNLCK;
    EXPECT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
    saving.join();
    EXPECT_EQ(Content(nameless), sExpected);
    ::close(fd);
}

TEST_F(IniSave, KeepsTheOldFileWhenThereIsNoRoom)
{
    folder.write("settings.ini", "k=old\n");
    ExpectChildPasses([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {10'000, 10'000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        map = Numbered("a value that takes room", 1000);
        const std::string deleted = folder.write("deleted", "k=old\n");
        const int fd = ::open(deleted.c_str(), O_RDWR | O_CLOEXEC);
        ::unlink(deleted.c_str());
        // Once beside the file and once over the bytes of one that has no name.
        for (const std::string& name : {path, "/proc/self/fd/" + std::to_string(fd)}) {
            EXPECT_EQ(save(name), "Fail to write " + name + ", " + ErrorText(EFBIG));
            EXPECT_EQ(Content(name), "k=old\n");
        }
        EXPECT_EQ(countFiles(), 1);
    });
}

TEST_F(IniSave, LeavesAFileAloneThatIsRenamedMeanwhile)
{
    const std::string other = folder.path("other");
    for (int round = 0; round < 30; ++round) {
        std::vector<int> before;
        for (const std::string& name : {path, other}) {
            ::unlink(name.c_str());
            before.push_back(::open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
        }
        std::atomic<bool> isSaved = false;
        std::atomic<bool> isAtWork = false;
        std::thread renaming([&] {
            for (; !isSaved; isAtWork = true)
                ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
        });
        while (!isAtWork)
            std::this_thread::yield();
        EXPECT_EQ(save(path), "");
        isSaved = true;
        renaming.join();
        for (const int fd : before) {
            char byte = 0;
            EXPECT_EQ(::pread(fd, &byte, 1, 0), 0) << "written over";
            ::close(fd);
        }
    }
}

TEST_F(IniSave, IsWholeForWhoeverReadsOrDiesMeanwhile)
{
    const Map contents[] = {Numbered("short", 300), Numbered("a longer text", 2000)};
    ASSERT_TRUE(SaveIniFile(path, contents[0], false));
    std::atomic<bool> isDone = false;
    std::vector<std::jthread> savers;
    for (const int own : {0, 1})
        savers.emplace_back([&, own] {
            for (int i = own; !isDone; i = 1 - i)
                EXPECT_TRUE(SaveIniFile(path, contents[i], false));
        });
    for (int seen[2] = {}; (seen[0] < 20 || seen[1] < 20) && !HasFailure();) {
        map.clear();
        EXPECT_TRUE(LoadIniFile(path, map));
        const bool isFirst = map == contents[0];
        EXPECT_TRUE(isFirst || map == contents[1]);
        ++seen[isFirst ? 0 : 1];
    }
    isDone = true;
}

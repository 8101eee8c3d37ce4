#include "ky/kyLockFile.h"

#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

namespace fs = std::filesystem;
using ky::kyLockFile;
using ky::test::Content;
using ky::test::ErrorText;

namespace {

struct LockFile : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    const std::string path = folder.path("l\u00f6ck");
    const std::string owner =
        "Lock from PID : " + std::to_string(::getpid()) + ", TID : " + std::to_string(::gettid());
    const std::string held = "Fail to acquire lock on existing file, " + ErrorText(EWOULDBLOCK);
    kyLockFile lock;
    kyLockFile other;
    bool fileExisted = true;
    std::string error = "of an earlier call";
};

}  // namespace

TEST_F(LockFile, PassesItsSelfCheckWhichNeedsAFolder)
{
    EXPECT_TRUE(kyLockFile::UnitTestUtf8(folder.path("")));
    EXPECT_TRUE(fs::is_empty(folder.path("")));
    EXPECT_FALSE(kyLockFile::UnitTestUtf8(folder.path("none")));
}

TEST_F(LockFile, FailsAtOnceWhileItIsHeldAndTellsItsOwner)
{
    ASSERT_TRUE(lock.takeLockUtf8(path, nullptr, kyLockFile::Exclusive, &error)) << error;
    EXPECT_EQ(error, "");
    EXPECT_EQ(Content(path), owner);
    EXPECT_FALSE(other.takeLockUtf8(path, &fileExisted, kyLockFile::Shared, &error));
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(error, held);
    EXPECT_FALSE(fileExisted);
    // An owner excludes itself, and stays one.
    EXPECT_FALSE(lock.takeLockUtf8(path, nullptr, kyLockFile::Exclusive, &error));
    EXPECT_EQ(error, held);
    EXPECT_TRUE(lock.isLocked());

    lock.releaseLock(false, &error);
    EXPECT_EQ(error, "");
    folder.write("l\u00f6ck", std::string(owner.size(), '-') + " of a longer line");
    EXPECT_TRUE(kyLockFile().takeLockUtf8(folder.path("other")));
    EXPECT_FALSE(fs::exists(folder.path("other"))) << "left behind by the destructor";
    EXPECT_TRUE(lock.takeLockUtf8(path));
    EXPECT_EQ(Content(path), owner + " of a longer line");
}

TEST_F(LockFile, IsRemovedUnderThoseWhoShareIt)
{
    folder.write("l\u00f6ck", "");
    EXPECT_TRUE(lock.takeLockUtf8(path, nullptr, kyLockFile::Shared));
    EXPECT_TRUE(other.takeLockUtf8(path, nullptr, kyLockFile::Shared));
    EXPECT_FALSE(kyLockFile().takeLockUtf8(path, nullptr, kyLockFile::LockType(2), &error));
    EXPECT_EQ(error, held);
    // kept: removed under the other's lock.
    EXPECT_TRUE(lock.releaseLock(true));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(other.releaseLock(true, &error));
    EXPECT_EQ(error, "Fail to remove lock file, remove error " + ErrorText(ENOENT) + " for '" +
                         path + "'");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LockFile, LeavesAnotherFileAtItsPathAlone)
{
    ASSERT_TRUE(lock.takeLockUtf8(path));
    fs::remove(path);
    ASSERT_TRUE(other.takeLockUtf8(path)) << "the lock on a removed file keeps nobody out";
    EXPECT_TRUE(lock.releaseLock(true, &error)) << error;
    EXPECT_TRUE(fs::exists(path));
    ASSERT_TRUE(lock.takeLockUtf8(folder.path("own")));
    fs::remove(folder.path("own"));
    fs::create_symlink("nowhere", folder.path("own"));
    EXPECT_TRUE(lock.releaseLock(true, &error)) << error;
    EXPECT_TRUE(fs::is_symlink(folder.path("own")));
    // Changing over leaves the file where it is.
    EXPECT_TRUE(other.takeLockUtf8(folder.path("other")));
    EXPECT_TRUE(lock.takeLockUtf8(path, &fileExisted));
    EXPECT_TRUE(fileExisted);
}

TEST_F(LockFile, TellsWhyItCannotOpenTheFile)
{
    for (const auto& [bad, errorNumber] :
         {std::pair(folder.path("none/x"), ENOENT), std::pair(folder.path(""), EISDIR),
          std::pair(std::string(), ENOENT), std::pair(path + std::string("\0", 1), ENOENT)}) {
        EXPECT_FALSE(lock.takeLockUtf8(bad, nullptr, kyLockFile::Exclusive, &error));
        EXPECT_EQ(errno, errorNumber);
        EXPECT_EQ(error, "Fail to open lock file in w+, " + ErrorText(errorNumber));
        EXPECT_FALSE(lock.takeLockUtf8(bad));
    }
}

TEST_F(LockFile, EndsWithItsOwnerAndNotWithAProgramOfIts)
{
    int started[2];
    ASSERT_EQ(::pipe2(started, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        kyLockFile owned;
        pid_t program = 0;
        int running[2];
        char byte = 0;
        // Its own word that it runs: starting it returns before the kernel has closed its files.
        std::string script = "exec sleep 60";
        if (owned.takeLockUtf8(path) && ::pipe(running) == 0) {
            script.insert(0, "echo >&" + std::to_string(running[1]) + "; ");
            char* const arguments[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                                       script.data(), nullptr};
            ::posix_spawnp(&program, "sh", nullptr, nullptr, arguments, environ);
            ::close(running[1]);
            static_cast<void>(::read(running[0], &byte, 1));
        }
        static_cast<void>(::write(started[1], &program, sizeof program));
        ::pause();
    }
    pid_t program = 0;
    EXPECT_EQ(::read(started[0], &program, sizeof program), ssize_t{sizeof program});
    EXPECT_FALSE(lock.takeLockUtf8(path));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(lock.takeLockUtf8(path, &fileExisted, kyLockFile::Exclusive, &error)) << error;
    EXPECT_TRUE(fileExisted);
    for (const int fd : started)
        ::close(fd);
    ASSERT_GT(program, 0) << "0 would be this group of processes";
    EXPECT_EQ(::kill(program, SIGKILL), 0) << "it was to be there still";
}

TEST_F(LockFile, TellsEachFailureOfAReleaseInOrder)
{
    const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(lowest);
    ASSERT_TRUE(lock.takeLockUtf8(path));
    fs::remove(path);
    ::close(lowest);
    EXPECT_FALSE(lock.releaseLock(true, &error));
    EXPECT_EQ(error, "Fail to release lock on file, " + ErrorText(EBADF) +
                         ", Fail to remove lock file, remove error " + ErrorText(ENOENT) +
                         " for '" + path + "'");
    EXPECT_FALSE(lock.isLocked());
}

TEST_F(LockFile, RemovesNothingWhenItsPathCannotBeConvertedAnyMore)
{
    ky::test::ExpectChildPasses([&] {
        auto last = std::make_unique<kyLockFile>();
        EXPECT_TRUE(last->takeLockUtf8(path));
        ky::terminateKySystem();
        last.reset();
        EXPECT_TRUE(fs::exists(path));
    });
}

TEST_F(LockFile, NeverHasTwoOwnersThoughOthersRemoveTheFile)
{
    constexpr int processes = 8;
    struct Arena {
        std::atomic<int> owner, takes, violations;
    };
    auto& arena = *static_cast<Arena*>(
        ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    // Exclusive owners, that is. Others may share the lock, and then leave the file or remove it.
    const auto contend = [&](int number) {
        for (int turn = number; arena.takes < 6000; ++turn) {
            const bool wantsShared = turn % 3 != 0;
            if (!lock.takeLockUtf8(path, &fileExisted,
                                   wantsShared ? kyLockFile::Shared : kyLockFile::Exclusive,
                                   &error)) {
                // Taken, or made and taken, by somebody else.
                arena.violations += error != held && error != "Fail to set lock on created file, " +
                                                                  ErrorText(EWOULDBLOCK);
                std::this_thread::yield();
                continue;
            }
            ++arena.takes;
            const bool isExclusive = !wantsShared || !fileExisted;
            arena.violations += isExclusive && arena.owner.exchange(number) != 0;
            std::this_thread::yield();
            arena.violations += isExclusive && arena.owner.exchange(0) != number;
            arena.violations += !lock.releaseLock(turn % 4 != 0) && isExclusive;
        }
    };
    std::vector<pid_t> children;
    for (int number = 1; number <= processes; ++number) {
        children.push_back(::fork());
        if (children.back() == 0) {
            ::alarm(100);
            contend(number);
            ::_exit(0);
        }
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(arena.violations, 0);
}

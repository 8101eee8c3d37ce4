#include "ky/kyLockFile.h"

#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

namespace fs = std::filesystem;
using ky::kyLockFile;
using ky::test::ErrorText;

namespace {

struct LockFile : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    const std::string path = folder.path("l\u00f6ck");
    const std::string held = "Fail to acquire lock on existing file, " + ErrorText(EWOULDBLOCK);
    kyLockFile lock;
    kyLockFile other;
    bool fileExisted = true;
    std::string error = "of an earlier call";
};

}  // namespace

TEST_F(LockFile, PassesItsSelfCheck)
{
    EXPECT_TRUE(kyLockFile::UnitTestUtf8(folder.path("")));
}

TEST_F(LockFile, FailsAtOnceWhileItIsHeldAndTellsItsOwner)
{
    const std::string owner =
        "Lock from PID : " + std::to_string(::getpid()) + ", TID : " + std::to_string(::gettid());
    folder.write("l\u00f6ck", std::string(owner.size(), '-') + " of a longer line");
    ASSERT_TRUE(lock.takeLockUtf8(path, nullptr, kyLockFile::Exclusive, &error)) << error;
    EXPECT_EQ(ky::test::Content(path), owner + " of a longer line") << "kept";
    EXPECT_FALSE(other.takeLockUtf8(path, &fileExisted, kyLockFile::Shared, &error));
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(error, held);
    EXPECT_FALSE(fileExisted);
    EXPECT_FALSE(lock.takeLockUtf8(path)) << "an owner excludes itself";
    EXPECT_TRUE(lock.isLocked());
    EXPECT_TRUE(kyLockFile().takeLockUtf8(folder.path("other")));
    EXPECT_FALSE(fs::exists(folder.path("other"))) << "left behind by the destructor";
    EXPECT_FALSE(other.takeLockUtf8(folder.path(""), nullptr, kyLockFile::Exclusive, &error));
    EXPECT_EQ(error, "Fail to open lock file in w+, " + ErrorText(EISDIR));
}

TEST_F(LockFile, IsRemovedUnderThoseWhoShareIt)
{
    folder.write("l\u00f6ck", "");
    EXPECT_TRUE(lock.takeLockUtf8(path, nullptr, kyLockFile::Shared));
    EXPECT_TRUE(other.takeLockUtf8(path, nullptr, kyLockFile::Shared));
    EXPECT_FALSE(kyLockFile().takeLockUtf8(path, nullptr, kyLockFile::LockType(2)));
    // kept: removed under the other's lock.
    EXPECT_TRUE(lock.releaseLock(true));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(other.releaseLock(true, &error));
    EXPECT_EQ(error, "Fail to remove lock file, remove error " + ErrorText(ENOENT) + " for '" +
                         path + "'");
}

TEST_F(LockFile, LeavesAnotherFileAtItsPathAlone)
{
    ASSERT_TRUE(lock.takeLockUtf8(path));
    fs::remove(path);
    ASSERT_TRUE(other.takeLockUtf8(path)) << "the lock on a removed file keeps nobody out";
    EXPECT_TRUE(lock.releaseLock(true, &error)) << error;
    // Somebody who shares the lock is about to remove the file.
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock removal = {};
    removal.l_type = F_WRLCK;
    EXPECT_EQ(::fcntl(fd, F_OFD_SETLK, &removal), 0);
    EXPECT_TRUE(other.releaseLock(true));
    ::close(fd);
    EXPECT_TRUE(fs::exists(path));
    // Changing over leaves the file where it is.
    EXPECT_TRUE(other.takeLockUtf8(path) && other.takeLockUtf8(folder.path("other")));
    EXPECT_TRUE(lock.takeLockUtf8(path, &fileExisted) && fileExisted);
}

TEST_F(LockFile, IsNotInheritedAndTellsEachFailureOfARelease)
{
    const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(lowest);
    for (const bool made : {true, false}) {
        ASSERT_TRUE(lock.takeLockUtf8(path));
        EXPECT_EQ(::fcntl(lowest, F_GETFD), FD_CLOEXEC);
        EXPECT_TRUE(!made || lock.releaseLock(false));
    }
    fs::remove(path);
    ::close(lowest);
    EXPECT_FALSE(lock.releaseLock(true, &error));
    EXPECT_EQ(error, "Fail to release lock on file, " + ErrorText(EBADF) +
                         ", Fail to remove lock file, remove error " + ErrorText(ENOENT) +
                         " for '" + path + "'");
    EXPECT_FALSE(lock.isLocked());
}

TEST_F(LockFile, NeverHasTwoOwnersThoughOthersRemoveTheFile)
{
    std::atomic<int> present = 0;
    std::atomic<int> takes = 0;
    std::atomic<int> violations = 0;
    // Exclusive owners, that is. Others may share the lock, and then leave the file or remove it.
    const auto contend = [&](int number) {
        kyLockFile own;
        bool isExisting = false;
        for (int turn = number; takes < 6000; ++turn, std::this_thread::yield()) {
            const bool wantsShared = turn % 3 != 0;
            if (!own.takeLockUtf8(path, &isExisting, kyLockFile::LockType(wantsShared)))
                continue;
            ++takes;
            const bool isExclusive = !wantsShared || !isExisting;
            violations += isExclusive && present.exchange(number) != 0;
            std::this_thread::yield();
            violations += isExclusive && present.exchange(0) != number;
            violations += !own.releaseLock(turn % 4 != 0) && isExclusive;
        }
    };
    std::vector<std::jthread> threads;
    for (int number = 1; number <= 8; ++number)
        threads.emplace_back(contend, number);
    threads.clear();
    EXPECT_EQ(violations, 0);
}

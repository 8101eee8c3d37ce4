#include "ky/SystemError.h"
#include "ky/kyMutex.h"
#include "ky/kyRandomUtils.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <random>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using ky::kyMutexSystem;
using ky::kyRandomUtils;
using ky::test::RunInChild;

namespace {

/// A name of this process, and the path that belongs to it.
struct NamedFile {
    NamedFile() { std::filesystem::remove_all(path); }
    ~NamedFile() { std::filesystem::remove_all(path); }
    NamedFile(const NamedFile&) = delete;
    NamedFile& operator=(const NamedFile&) = delete;

    const std::string file = "ky-test-" + std::to_string(::getpid());
    const std::string path = "/var/lock/" + file;
    const char* const name = file.c_str();
};

struct MutexSystem : ky::test::FullLibrary, NamedFile {};

template <typename T>
T& MakeShared()
{
    return *new (
        ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T();
}

bool Exists(const std::string& path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

/// Whether nobody holds the lock on what is at the path.
bool IsFree(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_NE(fd, -1) << path;
    const bool isFree = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return isFree;
}

/// Runs body in a child that goes on with the objects of this process.
void ExpectChildPasses(const std::function<void()>& body)
{
    const auto result = RunInChild(body);
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

}  // namespace

TEST_F(MutexSystem, KeepsAnEmptyFileOfItsNameWhileItLives)
{
    std::ofstream(path + "_b_c") << "left behind by a crash";
    {
        const kyMutexSystem mutex((file + "/b.c").c_str());
        EXPECT_TRUE(std::filesystem::is_empty(path + "_b_c"));
    }
    EXPECT_FALSE(Exists(path + "_b_c"));
}

TEST_F(MutexSystem, LetsOneObjectAfterTheOtherIn)
{
    kyMutexSystem first(name);
    kyMutexSystem second(name);
    std::atomic<bool> isUnlocked = false;
    bool wasUnlocked = false;
    first.lock();
    first.lock();
    std::thread waiter = ky::test::StartUntilAsleep([&] {
        second.lock();
        wasUnlocked = isUnlocked;
        second.unlock();
    });
    isUnlocked = true;
    first.unlock();
    waiter.join();
    EXPECT_TRUE(wasUnlocked);
    EXPECT_TRUE(IsFree(path));
}

TEST_F(MutexSystem, GoesOnWaitingAfterASignal)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer confuses threads of a child with those of its parent";
#endif
    ExpectChildPasses([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGUSR1, &action, nullptr);
        kyMutexSystem first(name);
        kyMutexSystem second(name);
        first.lock();
        std::atomic<bool> isUnlocked = false;
        std::atomic<pid_t> waiterId = 0;
        std::thread waiter = ky::test::StartUntilAsleep([&] {
            waiterId = ::gettid();
            second.lock();
            EXPECT_TRUE(isUnlocked);
        });
        for (int i = 0; i < 20; ++i) {
            // It is awake when the call returns, and asleep again when the signal is dealt with.
            ::pthread_kill(waiter.native_handle(), SIGUSR1);
            ky::test::WaitUntilAsleep(std::to_string(waiterId));
        }
        isUnlocked = true;
        first.unlock();
        waiter.join();
    });
}

TEST_F(MutexSystem, RemovesItsFileUnlessAnotherObjectHoldsTheLock)
{
    auto idle = std::make_unique<kyMutexSystem>(name);
    auto holder = std::make_unique<kyMutexSystem>(name);
    holder->lock();
    idle.reset();
    EXPECT_TRUE(Exists(path));
    EXPECT_FALSE(IsFree(path));

    // kept: removed although another object has it open, which makes it anew.
    idle = std::make_unique<kyMutexSystem>(name);
    holder.reset();
    EXPECT_FALSE(Exists(path));
    idle->lock();
    EXPECT_FALSE(IsFree(path));

    std::filesystem::rename(path, path + "_moved");
    std::ofstream(path) << "of somebody else";
    idle.reset();
    EXPECT_TRUE(Exists(path));
    std::filesystem::remove(path + "_moved");
}

TEST_F(MutexSystem, LeavesAloneWhatIsNoRegularFileAtItsPath)
{
    const ky::test::TemporaryFolder folder;
    const std::string target = folder.write("target", "content");
    const std::pair<int, std::function<void()>> cases[] = {
        {ELOOP, [&] { std::filesystem::create_symlink(target, path); }},
        {ELOOP, [&] { std::filesystem::create_symlink(folder.path("none"), path); }},
        {EISDIR, [&] { std::filesystem::create_directory(path); }},
        {EEXIST, [&] { ::mkfifo(path.c_str(), 0600); }},
    };
    for (const auto& [error, make] : cases) {
        SCOPED_TRACE(error);
        make();
        const auto type = std::filesystem::symlink_status(path).type();
        ky::test::CaughtStream console(std::cout);
        {
            kyMutexSystem mutex(name);
            mutex.lock();
            mutex.unlock();
        }
        const std::string line = console.take();
        EXPECT_EQ(line.find("CRITICAL PID "), 0u) << line;
        EXPECT_NE(line.find(" : Fail to create lock for file '" + file + "' error " +
                            ky::SystemError(error).toString() + '\n'),
                  std::string::npos)
            << line;
        EXPECT_EQ(std::filesystem::symlink_status(path).type(), type);
        EXPECT_EQ(std::filesystem::file_size(target), 7u);
        EXPECT_FALSE(Exists(folder.path("none")));
        std::filesystem::remove(path);
    }
}

TEST_F(MutexSystem, TakesNoNameThatTheLocalSetLacks)
{
    const auto result = RunInChild([&] {
        ky::terminateKySystem();
        ::setenv("LC_ALL", "C", 1);
        {
            const kyMutexSystem early(name);
            EXPECT_TRUE(Exists(path)) << "ASCII needs no initialisation";
        }
        ky::initializeKySystem(ky::InitType::Light, false);
        const kyMutexSystem mutex((file + "\u00e9").c_str());
        EXPECT_FALSE(Exists(path + "?"));
        EXPECT_FALSE(Exists(path + "e"));
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const auto lines = ky::test::Lines(result.out);
    ASSERT_EQ(lines.size(), 2u) << "the failure, then the early creation: " << result.out;
    EXPECT_NE(lines[0].find(file + "\u00e9' error System error : '(2) ENOENT"), std::string::npos);
}

TEST_F(MutexSystem, DrawsAnUnusedNameWhenItHasNone)
{
    static int sDraws;
    const auto previous = kyRandomUtils::SetRandGenerator([](unsigned char* buffer, int length) {
        std::fill_n(buffer, length, static_cast<unsigned char>(sDraws++ < 3 ? 0xFF : 0));
        const pid_t self = ::getpid();
        std::memcpy(buffer, &self, sizeof self);
        return 1;
    });
    const pid_t self = ::getpid();
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08x", __builtin_bswap32(static_cast<unsigned>(self)));
    const std::string ones = std::string("/var/lock/") + digits + "ffff4fffbfffffffffffffff";
    const std::string zeros = std::string("/var/lock/") + digits + "000040008000000000000000";
    {
        const kyMutexSystem first(nullptr);
        EXPECT_TRUE(Exists(ones));
        const kyMutexSystem second(nullptr);
        EXPECT_EQ(sDraws, 4) << "the second draws were ones, ones and zeros";
        EXPECT_TRUE(Exists(zeros));
        ky::test::CaughtStream console(std::cout);
        const kyMutexSystem third(nullptr);
        EXPECT_EQ(console.take(), "") << "a generator with nothing new is replaced";
    }
    EXPECT_FALSE(Exists(ones) || Exists(zeros));
    kyRandomUtils::SetRandGenerator(previous);
}

TEST_F(MutexSystem, IsAnotherHolderInAForkedChild)
{
    auto mutex = std::make_unique<kyMutexSystem>(name);
    mutex->lock();
    ExpectChildPasses([&] {
        mutex->unlock();
        EXPECT_FALSE(IsFree(path)) << "the child unlocked for its parent";
        mutex.reset();
        EXPECT_TRUE(Exists(path));
        EXPECT_FALSE(IsFree(path));
    });
    ExpectChildPasses([&] {
        const std::string otherPath = path + "-own";
        auto own = std::make_unique<kyMutexSystem>((file + "-own").c_str());
        own->lock();
        auto& isUnlocked = MakeShared<std::atomic<bool>>();
        const pid_t child = ::fork();
        if (child == 0) {
            own->lock();
            const bool wasUnlocked = isUnlocked;
            own.reset();
            ::_exit(wasUnlocked && Exists(otherPath) ? 0 : 1);
        }
        ky::test::WaitUntilAsleep(std::to_string(child));
        isUnlocked = true;
        own->unlock();
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        own.reset();
        EXPECT_FALSE(Exists(otherPath));
    });
}

TEST_F(MutexSystem, KeepsItsFileFromProgramsAndOffTheStandardStreams)
{
    ExpectChildPasses([&] {
        const kyMutexSystem plain(name);
        kyMutexSystem madeAnew((file + "-anew").c_str());
        std::filesystem::remove(path + "-anew");
        madeAnew.lock();
        ::close(STDIN_FILENO);
        const kyMutexSystem withoutInput((file + "-input").c_str());
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
        int found = 0;
        for (int fd = 3; fd < 256; ++fd) {
            std::error_code ignored;
            const auto link = "/proc/self/fd/" + std::to_string(fd);
            if (std::filesystem::read_symlink(link, ignored).filename().string().find(file) == 0) {
                ++found;
                EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
            }
        }
        EXPECT_EQ(found, 3);
    });
}

namespace {

/// What contenders for one mutex share.
struct Arena {
    std::atomic<int> holder;  // number of the process from 1, 0 for none
    std::atomic<int> passes;
    std::atomic<int> violations;
    std::atomic<bool> isOver;
    std::atomic<bool> isDoomed[64];
};

/// Takes and leaves the mutex, the object being made for each round or for all.
[[noreturn]] void Contend(Arena& arena, int number, const char* name)
{
    auto mutex = std::make_unique<kyMutexSystem>(name);
    while (!arena.isOver) {
        if (number % 2 == 0)
            mutex = std::make_unique<kyMutexSystem>(name);
        mutex->lock();
        const int previous = arena.holder.exchange(number);
        if (previous != 0 && !arena.isDoomed[previous])
            ++arena.violations;
        ++arena.passes;
        std::this_thread::yield();
        int self = number;
        if (!arena.holder.compare_exchange_strong(self, 0))
            ++arena.violations;
        mutex->unlock();
    }
    mutex.reset();
    ::_exit(0);
}

}  // namespace

TEST(MutexSystemContest, NeverHasTwoHoldersThoughHoldersAreKilled)
{
    const NamedFile named;
    auto& arena = MakeShared<Arena>();
    std::vector<pid_t> processes = {0};
    const auto start = [&] {
        const pid_t child = ::fork();
        if (child == 0)
            Contend(arena, static_cast<int>(processes.size()), named.name);
        processes.push_back(child);
    };
    while (processes.size() <= 8)
        start();
    for (int kills = 0; kills < 40;) {
        const int victim = arena.holder;
        if (victim == 0 || arena.isDoomed[victim])
            continue;
        arena.isDoomed[victim] = true;
        ::kill(processes[static_cast<std::size_t>(victim)], SIGKILL);
        ++kills;
        start();
        // The next ones go on.
        for (const int before = arena.passes; arena.passes < before + 20;)
            std::this_thread::yield();
    }
    arena.isOver = true;
    for (std::size_t i = 1; i < processes.size(); ++i) {
        int status = -1;
        ::waitpid(processes[i], &status, 0);
        EXPECT_EQ(status, arena.isDoomed[i] ? SIGKILL : 0);
    }
    EXPECT_EQ(arena.violations, 0);
}

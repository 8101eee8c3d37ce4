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

#include <arpa/inet.h>
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

namespace fs = std::filesystem;
using ky::kyMutexSystem;
using ky::test::ExpectChildPasses;

namespace {

/// A name of this process, and the path that belongs to it.
struct MutexSystem : ky::test::FullLibrary {
    ~MutexSystem() override { fs::remove_all(path); }

    const std::string file = "ky-test-" + std::to_string(::getpid());
    const std::string path = "/var/lock/" + file;
    const char* const name = file.c_str();
};

/// Whether nobody holds the lock on what is at the path.
bool IsFree(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_NE(fd, -1) << path;
    const bool isFree = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return isFree;
}

pid_t Fork(const std::function<void()>& body)
{
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

int StatusAtEnd(pid_t child)
{
    int status = -1;
    return ::waitpid(child, &status, 0) == child ? status : -1;
}

}  // namespace

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
        std::atomic<bool> isUnlocked = false;
        std::atomic<pid_t> waiterId = 0;
        first.lock();
        first.lock();
        std::thread waiter = ky::test::StartUntilAsleep([&] {
            waiterId = ::gettid();
            second.lock();
            EXPECT_TRUE(isUnlocked);
            second.unlock();
        });
        // It is awake when the call returns, and asleep again when the signal is dealt with.
        ::pthread_kill(waiter.native_handle(), SIGUSR1);
        ky::test::WaitUntilAsleep(std::to_string(waiterId));
        isUnlocked = true;
        first.unlock();
        waiter.join();
        EXPECT_TRUE(IsFree(path));
    });
}

TEST_F(MutexSystem, RemovesItsFileUnlessAnotherObjectHoldsTheLock)
{
    std::ofstream(path + "_b_c") << "left behind by a crash";
    auto holder = std::make_unique<kyMutexSystem>((file + "/b.c").c_str());
    EXPECT_TRUE(fs::is_empty(path + "_b_c"));
    holder.reset();
    EXPECT_FALSE(fs::exists(path + "_b_c"));

    auto idle = std::make_unique<kyMutexSystem>(name);
    holder = std::make_unique<kyMutexSystem>(name);
    holder->lock();
    idle.reset();
    EXPECT_FALSE(IsFree(path));

    // kept: removed although another object has it open, which makes it anew.
    idle = std::make_unique<kyMutexSystem>(name);
    holder.reset();
    EXPECT_FALSE(fs::exists(path));
    idle->lock();
    EXPECT_FALSE(IsFree(path));

    fs::remove(path);
    std::ofstream(path) << "of somebody else";
    idle.reset();
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(MutexSystem, LeavesAloneWhatIsNoRegularFileAtItsPath)
{
    const ky::test::TemporaryFolder folder;
    const std::string target = folder.write("target", "content");
    const std::pair<int, std::function<void()>> cases[] = {
        {ELOOP, [&] { fs::create_symlink(target, path); }},
        {EISDIR, [&] { fs::create_directory(path); }},
        {EEXIST, [&] { ::mkfifo(path.c_str(), 0600); }},
    };
    for (const auto& [error, make] : cases) {
        make();
        const auto type = fs::symlink_status(path).type();
        ky::test::CaughtStream console(std::cout);
        {
            kyMutexSystem mutex(name);
            mutex.lock();
            mutex.unlock();
        }
        const std::string line = console.take();
        const std::string text = " : Fail to create lock for file '" + file + "' error " +
                                 ky::SystemError(error).toString() + '\n';
        EXPECT_TRUE(line.starts_with("CRITICAL PID ") && line.ends_with(text)) << line << text;
        EXPECT_EQ(fs::symlink_status(path).type(), type);
        EXPECT_EQ(fs::file_size(target), 7u);
        fs::remove(path);
    }
}

TEST_F(MutexSystem, TakesNoNameThatTheLocalSetLacks)
{
    const auto result = ky::test::RunInChild([&] {
        ky::terminateKySystem();
        ::setenv("LC_ALL", "C", 1);
        ky::initializeKySystem(ky::InitType::Light, false);
        const kyMutexSystem mutex((file + "\u00e9").c_str());
        EXPECT_FALSE(fs::exists(path + "?") || fs::exists(path + "e"));
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    // The fork check has lines of its own among them.
    const auto failure = result.out.find(file + "\u00e9' error System error : '(2) ENOENT");
    EXPECT_NE(failure, std::string::npos) << result.out;
    const std::string last = ": Mutex created before full init of kySystem\n";
    EXPECT_EQ(result.out.rfind(last), result.out.size() - last.size()) << result.out;
}

TEST_F(MutexSystem, DrawsAnUnusedNameWhenItHasNone)
{
    const auto previous =
        ky::kyRandomUtils::SetRandGenerator([](unsigned char* buffer, int length) {
            std::fill_n(buffer, length, static_cast<unsigned char>(0xFF));
            const auto self = htonl(static_cast<unsigned>(::getpid()));
            std::memcpy(buffer, &self, sizeof self);
            return 1;
        });
    char drawn[64];
    std::snprintf(drawn, sizeof drawn, "/var/lock/%08xffff4fffbfffffffffffffff", ::getpid());
    {
        ky::test::CaughtStream console(std::cout);
        const kyMutexSystem first(nullptr);
        kyMutexSystem second(nullptr);
        second.lock();
        EXPECT_TRUE(IsFree(drawn));
        EXPECT_EQ(console.take(), "") << "a generator with nothing new is replaced";
    }
    EXPECT_FALSE(fs::exists(drawn));
    ky::kyRandomUtils::SetRandGenerator(previous);
}

TEST_F(MutexSystem, IsAnotherHolderInAForkedChild)
{
    ExpectChildPasses([&] {
        auto mutex = std::make_unique<kyMutexSystem>(name);
        mutex->lock();
        ExpectChildPasses([&] {
            mutex->unlock();
            EXPECT_FALSE(IsFree(path)) << "the child unlocked for its parent";
            mutex.reset();
            EXPECT_FALSE(IsFree(path));
        });
        const pid_t child = Fork([&] {
            mutex->lock();
            EXPECT_FALSE(fs::is_empty(path)) << "not unlocked";
            mutex.reset();
            EXPECT_TRUE(fs::exists(path));
        });
        ky::test::WaitUntilAsleep(std::to_string(child));
        std::ofstream(path) << "unlocked";
        mutex->unlock();
        EXPECT_EQ(StatusAtEnd(child), 0);
    });
}

TEST_F(MutexSystem, KeepsItsFileFromProgramsAndOffTheStandardStreams)
{
    ExpectChildPasses([&] {
        ::close(STDIN_FILENO);
        const kyMutexSystem plain((file + "-plain").c_str());
        kyMutexSystem madeAnew(name);
        fs::remove(path);
        madeAnew.lock();
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
        EXPECT_NE(std::system(("ls -l /proc/self/fd | grep " + path).c_str()), 0);
    });
}

TEST(MutexSystemContest, NeverHasTwoHoldersThoughHoldersAreKilled)
{
    struct Arena {
        // The holder is the number of the process from 1, 0 for none.
        std::atomic<int> holder, passes, violations;
        std::atomic<bool> isOver, isDoomed[64];
    };
    auto& arena = *static_cast<Arena*>(
        ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const std::string name = "ky-contest-" + std::to_string(::getpid());
    // Takes and leaves the mutex, the object being made for each round or for all.
    const auto contend = [&](int number) {
        auto mutex = std::make_unique<kyMutexSystem>(name.c_str());
        while (!arena.isOver) {
            if (number % 2 == 0)
                mutex = std::make_unique<kyMutexSystem>(name.c_str());
            mutex->lock();
            const int previous = arena.holder.exchange(number);
            arena.violations += previous != 0 && !arena.isDoomed[previous];
            ++arena.passes;
            std::this_thread::yield();
            int self = number;
            arena.violations += !arena.holder.compare_exchange_strong(self, 0);
            mutex->unlock();
        }
    };
    std::vector<pid_t> processes = {0};
    const auto start = [&] {
        const int number = static_cast<int>(processes.size());
        processes.push_back(Fork([&] { contend(number); }));
    };
    for (int i = 0; i < 8; ++i)
        start();
    while (processes.size() <= 48) {
        const int victim = arena.holder;
        if (victim == 0 || arena.isDoomed[victim].exchange(true))
            continue;
        ::kill(processes[static_cast<std::size_t>(victim)], SIGKILL);
        start();
        // The next ones go on.
        for (const int before = arena.passes; arena.passes < before + 20;)
            std::this_thread::yield();
    }
    arena.isOver = true;
    for (std::size_t i = 1; i < processes.size(); ++i)
        EXPECT_EQ(StatusAtEnd(processes[i]), arena.isDoomed[i] ? SIGKILL : 0);
    EXPECT_EQ(arena.violations, 0);
}

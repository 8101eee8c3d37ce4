#include "ky/kyMutex.h"
#include "ky/kyRandomUtils.h"

#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using ky::kyMutexSystem;
using ky::test::ExpectChildPasses;

namespace {

/// A name of this process, and the path that belongs to it.
struct MutexSystem : ky::test::FullLibrary {
    ~MutexSystem() override { fs::remove_all(path); }

    auto make() const { return std::make_unique<kyMutexSystem>(name.c_str()); }
    /// Whether nobody holds the lock on what is at the path.
    bool isFree() const { return std::system(("flock -n " + path + " true").c_str()) == 0; }

    const std::string name = "ky-test-" + std::to_string(::getpid());
    const std::string path = "/var/lock/" + name;
};

}  // namespace

TEST_F(MutexSystem, RemovesItsFileUnlessAnotherObjectHoldsTheLock)
{
    std::ofstream(path + "_b_c") << "left behind by a crash";
    auto holder = std::make_unique<kyMutexSystem>((name + "/b.c").c_str());
    EXPECT_TRUE(fs::is_empty(path + "_b_c"));
    holder.reset();
    EXPECT_FALSE(fs::exists(path + "_b_c"));

    auto idle = make();
    holder = make();
    holder->lock();
    idle.reset();
    EXPECT_TRUE(fs::exists(path) && !isFree());

    // kept: removed although another object has it open, which makes it anew.
    idle = make();
    holder.reset();
    EXPECT_FALSE(fs::exists(path));
    idle->lock();
    EXPECT_TRUE(fs::exists(path) && !isFree());

    fs::remove(path);
    std::ofstream(path) << "of somebody else";
    idle.reset();
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(MutexSystem, LeavesAloneWhatIsNoRegularFileAtItsPath)
{
    const ky::test::TemporaryFolder folder;
    const std::string target = folder.write("target", "content");
    for (const int error : {ELOOP, EEXIST}) {
        if (error == ELOOP)
            fs::create_symlink(target, path);
        else
            ::mkfifo(path.c_str(), 0600);
        const auto type = fs::symlink_status(path).type();
        ky::test::CaughtStream console(std::cout);
        make()->lock();
        const std::string line = console.take();
        EXPECT_TRUE(line.starts_with("CRITICAL PID ") &&
                    line.ends_with(" : Fail to create lock for file '" + name + "' error " +
                                   ky::test::ErrorText(error) + '\n'))
            << line;
        EXPECT_TRUE(fs::symlink_status(path).type() == type && fs::file_size(target) == 7);
        fs::remove(path);
    }
}

TEST_F(MutexSystem, DrawsAnUnusedNameWhenItHasNone)
{
    const auto previous = ky::kyRandomUtils::SetRandGenerator([](unsigned char* bytes, int size) {
        std::fill_n(bytes, size, static_cast<unsigned char>(0xFF));
        return 1;
    });
    // A generator with nothing new is replaced.
    kyMutexSystem first(nullptr), second(nullptr);
    first.lock();
    second.lock();
    ky::kyRandomUtils::SetRandGenerator(previous);
}

TEST_F(MutexSystem, IsAnotherHolderInAForkedChildAndWaitsThroughSignals)
{
    ExpectChildPasses([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGUSR1, &action, nullptr);
        // Neither at first nor made anew is the file a standard stream or left to programs.
        ::close(STDIN_FILENO);
        auto mutex = make();
        fs::remove(path);
        mutex->lock();
        mutex->lock();
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
        EXPECT_NE(std::system(("ls -l /proc/self/fd | grep " + path).c_str()), 0);
        ExpectChildPasses([&] {
            mutex->unlock();
            EXPECT_FALSE(isFree()) << "the child unlocked for its parent";
            mutex.reset();
            EXPECT_TRUE(fs::exists(path) && !isFree());
        });
        const pid_t child = ky::test::Fork([&] {
            mutex->lock();
            EXPECT_FALSE(fs::is_empty(path)) << "not unlocked";
            mutex.reset();
            EXPECT_TRUE(fs::exists(path));
        });
        // It is awake when the call returns, and asleep again when the signal is dealt with.
        ky::test::WaitUntilAsleep(std::to_string(child));
        ::kill(child, SIGUSR1);
        ky::test::WaitUntilAsleep(std::to_string(child));
        std::ofstream(path) << "unlocked";
        mutex->unlock();
        EXPECT_EQ(ky::test::EndOf(child), 0);
        EXPECT_TRUE(isFree());
    });
}

TEST(MutexSystemContest, NeverHasTwoHolders)
{
    auto& holder = *static_cast<std::atomic<int>*>(
        ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const std::string name = "ky-contest-" + std::to_string(::getpid());
    const auto make = [&] { return std::make_unique<kyMutexSystem>(name.c_str()); };
    std::vector<pid_t> processes;
    // The object is made for each round, and its file removed, or for all.
    for (int number = 1; number <= 8; ++number)
        processes.push_back(ky::test::Fork([&] {
            auto mutex = make();
            for (int round = 0; round < 500; ++round) {
                if (number % 2 == 0)
                    mutex = make();
                mutex->lock();
                EXPECT_EQ(holder.exchange(number), 0);
                std::this_thread::yield();
                EXPECT_EQ(holder.exchange(0), number);
                mutex->unlock();
            }
        }));
    for (const pid_t process : processes)
        EXPECT_EQ(ky::test::EndOf(process), 0);
}

// Processes that contend for one exclusive lock and remove its file at each release, as often as
// they can for five seconds. The counters: takes in that time, and how often two had it at once.

#include "ky/kyLockFile.h"

#include "ky/kyDirUtils.h"

#include <benchmark/benchmark.h>
#ifdef KY_HAVE_QT
#include <QLockFile>
#endif

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>

namespace {

constexpr int sProcesses = 200;
constexpr std::chrono::seconds sDuration(5);

struct Arena {
    std::atomic<bool> isOver;
    std::atomic<int> owner, takes, violations;
};

class OurLock {
public:
    explicit OurLock(const std::string& path) : mPath(path) {}
    bool take() { return mLock.takeLockUtf8(mPath); }
    void release() { mLock.releaseLock(true); }

private:
    const std::string mPath;
    ky::kyLockFile mLock;
};

/// The same promise from bare calls, without a line about the owner.
class BareLock {
public:
    explicit BareLock(const std::string& path) : mPath(path) {}
    bool take()
    {
        while (true) {
            mFd = ::open(mPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
            struct stat file;
            struct stat present;
            if (::flock(mFd, LOCK_EX | LOCK_NB) != 0) {
                ::close(mFd);
                return false;
            }
            if (::fstat(mFd, &file) == 0 && ::stat(mPath.c_str(), &present) == 0 &&
                file.st_ino == present.st_ino)
                return true;
            ::close(mFd);
        }
    }
    void release()
    {
        ::unlink(mPath.c_str());
        ::close(mFd);
    }

private:
    const std::string mPath;
    int mFd = -1;
};

#ifdef KY_HAVE_QT
class QtLock {
public:
    explicit QtLock(const std::string& path) : mLock(QString::fromStdString(path)) {}
    bool take() { return mLock.tryLock(0); }
    void release() { mLock.unlock(); }

private:
    QLockFile mLock;
};
#endif

template <typename Lock>
void Contend(Arena& arena, const std::string& path, int number)
{
    Lock lock(path);
    while (!arena.isOver) {
        if (!lock.take()) {
            std::this_thread::yield();
            continue;
        }
        arena.violations += arena.owner.exchange(number) != 0;
        ++arena.takes;
        arena.violations += arena.owner.exchange(0) != number;
        lock.release();
    }
}

template <typename Lock>
void TakesByManyProcesses(benchmark::State& state)
{
    std::string folder = ky::kyDirUtils::GetTempFolderUtf8() + "/ky-bench-XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr)
        std::abort();
    auto& arena = *static_cast<Arena*>(
        ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (auto _ : state) {
        std::vector<pid_t> children;
        for (int number = 1; number <= sProcesses; ++number) {
            children.push_back(::fork());
            if (children.back() == 0) {
                Contend<Lock>(arena, folder + "/lock", number);
                ::_exit(0);
            }
        }
        std::this_thread::sleep_for(sDuration);
        arena.isOver = true;
        for (const pid_t child : children)
            ::waitpid(child, nullptr, 0);
    }
    state.counters["takes"] = arena.takes.load();
    state.counters["violations"] = arena.violations.load();
    ::munmap(&arena, sizeof(Arena));
    ky::kyDirUtils::ClearFolderUtf8(folder, true);
}
BENCHMARK_TEMPLATE(TakesByManyProcesses, OurLock)->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(TakesByManyProcesses, BareLock)->Iterations(1)->UseRealTime();
#ifdef KY_HAVE_QT
BENCHMARK_TEMPLATE(TakesByManyProcesses, QtLock)->Iterations(1)->UseRealTime();
#endif

}  // namespace

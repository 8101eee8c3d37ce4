#include "ky/kyCancelIfParentProcessDied.h"
#include "ky/kyLog.h"
#include "ky/kyThread.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/FailingCall.h"
#include "support/Library.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

using Watcher = ky::kyCancelIfParentProcessDied;
using Clock = std::chrono::steady_clock;

namespace {

struct IdleParentWatcher : ky::test::FullLibrary {};

/// The folder in proc(5) of the watching thread of a process, once the thread has its name.
std::string WatchingThread(pid_t process)
{
    for (;;) {
        for (const auto& task :
             std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task/"))
            if (ky::test::Content(task.path() / "comm") == "kyParentWatch\n")
                return task.path();
    }
}

void WaitUntil(const std::function<bool()>& isSo)
{
    while (!isSo())
        ky::kyThread::msleep(1);
}

/// Returns once a watching thread has waited twice more, and so has looked at its parent.
void WaitForLook(const std::string& thread)
{
    const auto waits = [&thread] {
        const std::string status = ky::test::Content(thread + "/status");
        const std::string key = "\nvoluntary_ctxt_switches:";
        return std::stol(status.substr(status.find(key) + key.size()));
    };
    WaitUntil([&, before = waits()] { return waits() >= before + 2; });
}

/// A worker and its master, both of whom this process adopts.
struct Family {
    /// `work` runs in the worker and receives the end of a pipe to this process.
    explicit Family(const std::function<void(int)>& work)
    {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        word = ends[0];
        master = ::fork();
        if (master == 0) {
            worker = ::fork();
            if (worker == 0) {
                work(ends[1]);
                std::cout.flush();
                ::_exit(::testing::Test::HasFailure() ? 1 : 0);
            }
            ::pause();
        }
        worker = hear();
    }
    /// The next number from the worker, 0 when none comes within a minute.
    int hear() const
    {
        pollfd ready = {word, POLLIN, 0};
        int number = 0;
        EXPECT_TRUE(::poll(&ready, 1, 60000) == 1 && ::read(word, &number, sizeof number) > 0);
        return number;
    }
    static void Say(int fd)
    {
        const int number = ::getpid();
        EXPECT_GT(::write(fd, &number, sizeof number), 0);
    }

    void killMaster() const
    {
        ::kill(master, SIGKILL);
        ::waitpid(master, nullptr, 0);
    }
    void expectGoodEnd() const
    {
        int status = -1;
        EXPECT_EQ(::waitpid(worker, &status, 0), worker);
        EXPECT_EQ(status, 0);
    }

    pid_t master = 0;
    pid_t worker = 0;
    int word = -1;
};

/// A host that gives its watcher up when the log tells of the death.
struct Host {
    std::atomic<Watcher*> watcher = nullptr;
    std::atomic<bool> isDone = false;

    static void Handle(std::list<ky::kyLog::LogEntry>& batch, void* self)
    {
        auto& host = *static_cast<Host*>(self);
        for (const auto& entry : batch) {
            if (entry.message != "Parent process died")
                continue;
            static_cast<void>(host.watcher.load()->shouldCancel());
            delete host.watcher.load();
            host.isDone = true;
        }
    }
};

}  // namespace

TEST(ParentWatcher, FiresWhenTheParentIsGoneAndNotWhenItIsStopped)
{
    const auto result = ky::test::RunInChild([] {
        const Family family([](int word) {
            ky::initializeKySystem(ky::InitType::Full, false);
            {
                bool flag = true;
                const ky::kyCancelInterfaceProxyReadOnly external(&flag);
                const Watcher watcher(&external);
                EXPECT_TRUE(watcher.shouldCancel());
                flag = false;
                EXPECT_FALSE(watcher.shouldCancel());
                Family::Say(word);
                WaitUntil([&] { return watcher.shouldCancel(); });
                Family::Say(word);
            }
            ky::terminateKySystem();
        });
        ::kill(family.master, SIGSTOP);
        EXPECT_EQ(::waitpid(family.master, nullptr, WUNTRACED), family.master);
        WaitForLook(WatchingThread(family.worker));
        pollfd word = {family.word, POLLIN, 0};
        EXPECT_EQ(::poll(&word, 1, 0), 0) << "fired while the parent was stopped";

        const auto start = Clock::now();
        family.killMaster();
        family.hear();
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
        family.expectGoodEnd();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out.find("INFO PID "), 0u) << result.out;
    EXPECT_NE(result.out.find(" : Parent process died\n"), std::string::npos);
    EXPECT_EQ(ky::test::Lines(result.out).size(), 1u) << result.out;
}

TEST(ParentWatcher, MayBeDestroyedByTheHandlerThatHearsOfTheDeath)
{
    // On the log's thread, and on the watcher's own where the log has none.
    for (const auto level : {ky::InitType::Full, ky::InitType::Light})
        ky::test::ExpectChildPasses([level] {
            const Family family([level](int word) {
                ky::initializeKySystem(level, false);
                Host host;
                ky::kyLog::Instance()->installCustomHandler(&Host::Handle, &host);
                // Nor does it need what proc(5) tells of the parent.
                if (level == ky::InitType::Light)
                    ky::test::LetCallFail(SYS_openat, EMFILE);
                host.watcher = new Watcher;
                Family::Say(word);
                WaitUntil([&] { return host.isDone.load(); });
                ky::kyLog::Instance()->installCustomHandler(nullptr, nullptr);
                ky::terminateKySystem();
            });
            family.killMaster();
            family.expectGoodEnd();
        });
}

TEST_F(IdleParentWatcher, EndsAtOnce)
{
    constexpr int rounds = 40;
    const auto start = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        const Watcher watcher;
        if (i % 2 == 0)
            ky::test::WaitUntilAsleep(std::filesystem::path(WatchingThread(::getpid())).filename());
    }
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(100 * rounds / 2));

    auto inherited = std::make_unique<Watcher>();
    ky::test::ExpectChildPasses([&] { inherited.reset(); });
}

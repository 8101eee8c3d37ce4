#include "ky/kyCancelIfParentProcessDied.h"

#include "ky/kyThread.h"

#include "process/ProcessSupport.h"
#include "support/FailingCall.h"

#include <atomic>
#include <chrono>
#include <memory>

#include <sys/syscall.h>
#include <cerrno>

using Watcher = ky::kyCancelIfParentProcessDied;

namespace {

using IdleParentWatcher = ky::test::FullLibrary;

/// What a worker prints whose parent ends when the worker calls what `work` receives.
std::string PrintedByOrphan(ky::InitType level,
                            const std::function<void(const std::function<void()>&)>& work)
{
    return ky::test::PrintedBy([&] {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        if (::fork() == 0) {
            ::alarm(60);
            ky::initializeKySystem(level, false);
            work([&] { EXPECT_EQ(::write(ends[1], "x", 1), 1); });
            ky::terminateKySystem();
            std::cout << "done\n";
            return;
        }
        char word = 0;
        EXPECT_EQ(::read(ends[0], &word, 1), 1);
    });
}

}  // namespace

TEST(ParentWatcher, FiresWhenTheParentIsGone)
{
    const std::string line = PrintedByOrphan(ky::InitType::Full, [](const auto& endParent) {
        const bool flag = true;
        const ky::kyCancelInterfaceProxyReadOnly external(&flag);
        EXPECT_TRUE(Watcher(&external).shouldCancel());
        const Watcher watcher;
        endParent();
        while (!watcher.shouldCancel())
            ky::kyThread::msleep(1);
    });
    EXPECT_TRUE(line.starts_with("INFO PID ") && line.ends_with(" : Parent process died\ndone\n"))
        << line;
}

TEST(ParentWatcher, MayBeDestroyedByTheHandlerThatHearsOfTheDeath)
{
    // On the log's thread, and on the watcher's own where the log has none.
    for (const auto level : {ky::InitType::Full, ky::InitType::Light}) {
        const std::string printed = PrintedByOrphan(level, [level](const auto& endParent) {
            std::atomic<Watcher*> watcher = nullptr;
            const auto destroy = [](std::list<ky::kyLog::LogEntry>& batch, void* where) {
                if (batch.front().message != "Parent process died")
                    return;
                auto& found = *static_cast<std::atomic<Watcher*>*>(where);
                static_cast<void>(found.load()->shouldCancel());
                delete found.load();
                found = nullptr;
            };
            ky::kyLog::Instance()->installCustomHandler(destroy, &watcher);
            // Nor does it need what proc(5) tells of the parent.
            if (level == ky::InitType::Light)
                ky::test::LetCallFail(SYS_openat, EMFILE);
            watcher = new Watcher;
            endParent();
            while (watcher != nullptr)
                ky::kyThread::msleep(1);
            ky::kyLog::Instance()->installCustomHandler(nullptr, nullptr);
        });
        EXPECT_TRUE(printed.ends_with("\ndone\n")) << printed;
    }
}

TEST_F(IdleParentWatcher, EndsAtOnce)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 40; ++i) {
        const Watcher watcher;
        if (i % 2 == 0)
            ky::test::WaitUntilOthersAreAsleep();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    auto inherited = std::make_unique<Watcher>();
    ky::test::WaitUntilOthersAreAsleep();
    ky::test::ExpectChildPasses([&] { inherited.reset(); });
}

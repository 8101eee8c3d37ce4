#include "ky/kyException.h"

#include "frame/Guard.h"
#include "frame/Report.h"
#include "frame/SignalStack.h"
#include "frame/WatchedSignals.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_SANITIZERS() GTEST_SKIP() << "the sanitizers have handlers of their own"
#else
#define SKIP_UNDER_SANITIZERS() static_cast<void>(0)
#endif

using ky::exception::IsSigWatcherRegistered;
using ky::exception::impl::RegisterSigWatcher;
using ky::exception::impl::ReleaseSigWatcher;
using ky::exception::impl::UnregisterSigWatcher;
using ky::test::ChildResult;

namespace {

using Body = std::function<void()>;

/// Runs `body` in a child in which the watcher has just been registered, whatever other tests have
/// left behind.
ChildResult RunWatched(
    const Body& body, const Body& beforeRegistration = [] {})
{
    return ky::test::RunInChild([&] {
        const rlimit noCore = {0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        UnregisterSigWatcher();
        beforeRegistration();
        RegisterSigWatcher();
        body();
    });
}

void RunGuarded(const Body& body)
{
    ky::exception::impl::ExecGuardedCode(
        [](void* argument) { (*static_cast<const Body*>(argument))(); }, const_cast<Body*>(&body));
}

std::size_t Count(const std::string& text, const std::string& what)
{
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size())
        ++count;
    return count;
}

struct sigaction CurrentAction(int signal)
{
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action;
}

void HostHandler(int) {}
void OtherHostHandler(int) {}

void WriteToNull()
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

void DivideByZero()
{
    volatile int zero = 0;
    std::cout << 1 / zero;
}

void CallNull()
{
    void (*volatile nowhere)() = nullptr;
    nowhere();
}

void JumpToNowhere()
{
    const std::uintptr_t volatile nowhere = 0x12345;
    reinterpret_cast<void (*)()>(nowhere)();
}

void ReadBehindTheEndOfAFile()
{
    const int file = ::memfd_create("ky-test", MFD_CLOEXEC);
    const auto* const page =
        static_cast<volatile char*>(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0));
    static_cast<void>(*page);
}

[[gnu::noinline]] int OverflowTheStack(int depth)
{
    volatile char frame[1024] = {};
    frame[static_cast<std::size_t>(depth) % sizeof frame] = 1;
    return depth < 0 ? 0 : OverflowTheStack(depth + 1) + frame[0];
}

void OverflowASmallStack()
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_STACK, &limit);
    limit.rlim_cur = 1UL << 20;
    ::setrlimit(RLIMIT_STACK, &limit);
    OverflowTheStack(0);
}

char* sUnreadable = nullptr;

/// Protects the free memory at the end of the heap, so that the next large request faults while it
/// holds the heap's lock.
void ProtectFreeHeap()
{
    // A second thread: alone, a process does not lock its heap.
    std::thread([] { ::pause(); }).detach();
    for (int i = 0; i < 10000; ++i) {
        constexpr std::size_t size = 65536;
        auto* const block = static_cast<char*>(std::malloc(size));
        auto* const end = static_cast<char*>(::sbrk(0));
        const std::size_t usable = ::malloc_usable_size(block);
        std::size_t following = 0;
        std::memcpy(&following, block + usable, sizeof following);
        if (block + usable - sizeof following + (following & ~std::size_t{7}) != end)
            continue;
        const auto address =
            reinterpret_cast<std::uintptr_t>(block + usable) & ~std::uintptr_t{4095};
        sUnreadable = reinterpret_cast<char*>(address);
        ::mprotect(sUnreadable, static_cast<std::size_t>(end - sUnreadable), PROT_NONE);
        return;
    }
    ::_exit(99);
}

void FaultInMalloc()
{
    ProtectFreeHeap();
    void* volatile block = std::malloc(60000);
    std::free(block);
}

void BreakReports(void (*fault)(std::string_view))
{
    ky::impl::SetReportSinks(nullptr, fault);
}

struct FaultingDestructor {
    ~FaultingDestructor() { WriteToNull(); }
};

/// What a process dies of, and the beginning of the last report that it leaves.
struct Death {
    const char* name;
    int signal;
    const char* report;
    Body body;
};

/// Returns what was written, for more.
std::string ExpectDeath(const Death& death)
{
    SCOPED_TRACE(death.name);
    const auto result = RunWatched(death.body);
    EXPECT_EQ(result.signal, death.signal);
    const std::size_t report = result.err.rfind("Got signal (");
    EXPECT_EQ(result.err.find(death.report, report), report) << result.err;
    const std::size_t end = result.err.find('\n', result.err.find("B, sent by UID ", report));
    EXPECT_NE(result.err.find("[0x", end), std::string::npos) << "no trace: " << result.err;
    EXPECT_EQ(Count(result.err, "Catch an exception"), 0u) << result.err;
    return result.err;
}

}  // namespace

TEST(SigWatcher, ReportsTheCrashWithATraceAndDiesOfTheSignal)
{
    SKIP_UNDER_SANITIZERS();
    const Death deaths[] = {
        {"null", SIGSEGV, "Got signal (SIGSEGV 11) Segmentation fault (SEGV_MAPERR),", WriteToNull},
        {"division", SIGFPE, "Got signal (SIGFPE 8) Floating point exception (FPE_", DivideByZero},
        {"call", SIGSEGV, "Got signal (SIGSEGV 11", CallNull},
        {"abort", SIGABRT, "Got signal (SIGABRT 6) Aborted (SI_TKILL ),", [] { std::abort(); }},
        {"exception", SIGABRT, "Got signal (SIGABRT 6",
         [] { std::thread([] { throw 1; }).join(); }},
        {"overflow", SIGSEGV, "Got signal (SIGSEGV 11", OverflowASmallStack},
        {"plain thread", SIGSEGV, "Got signal (SIGSEGV", [] { std::thread(WriteToNull).join(); }},
        {"thread's overflow", SIGSEGV, "Got signal (SIGSEGV 11",
         [] {
             std::thread([] {
                 const ky::impl::ScopedSignalStack stack;
                 OverflowTheStack(0);
             }).join();
         }},
        {"after the release", SIGTERM, "Got signal (SIGTERM 15) Terminated (SI_TKILL ),",
         [] {
             ReleaseSigWatcher();
             ::raise(SIGTERM);
         }},
    };
    for (const Death& death : deaths)
        EXPECT_EQ(Count(ExpectDeath(death), ": Got signal ("), 1u) << death.name;
}

TEST(SigWatcher, TellsWhoSentTheSignal)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched([] {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t sender = ::fork();
        if (sender == 0) {
            char byte = 0;
            ::_exit(::read(ready[0], &byte, 1) == 1 ? ::kill(::getppid(), SIGTERM) : 1);
        }
        std::cout << sender << std::endl;
        EXPECT_EQ(::write(ready[1], "", 1), 1);
        for (;;)
            ::pause();
    });
    EXPECT_EQ(result.signal, SIGTERM);
    const std::string sender = ky::test::Lines(result.out).at(0);
    EXPECT_NE(result.err.find("Got signal (SIGTERM 15) Terminated (SI_USER), from PID " + sender +
                              ", PID "),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("B, sent by UID " + std::to_string(::getuid()) + "\n"),
              std::string::npos)
        << result.err;
}

TEST(SigWatcher, MakesAWriteToAClosedPipeFailInsteadOfKilling)
{
    const auto result = RunWatched([] {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        ::close(ends[0]);
        EXPECT_EQ(::write(ends[1], "", 1), -1);
        EXPECT_EQ(errno, EPIPE);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(SigWatcher, GoesOnWhereTheDefaultActionDoes)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched([] {
        errno = ERANGE;
        ::raise(SIGURG);
        EXPECT_EQ(errno, ERANGE);
        // kept: the default action stays, so a second one is not reported.
        ::raise(SIGURG);
        const pid_t child = ::fork();
        if (child == 0) {
            // The system stops no member of a group that nobody outside could wake.
            ::setpgid(0, 0);
            ::raise(SIGTSTP);
            ::_exit(7);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, WUNTRACED), child);
        EXPECT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGTSTP) << status;
        ::kill(child, SIGCONT);
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
        EXPECT_EQ(CurrentAction(SIGALRM).sa_handler, SIG_DFL) << "a time limit for what goes on";
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(Count(result.err, "Got signal (SIGURG 23) Urgent I/O condition (SI_TKILL ),"), 1u);
    EXPECT_EQ(Count(result.err, "Got signal (SIGTSTP 20) Stopped (SI_TKILL ),"), 1u) << result.err;
}

TEST(SigWatcher, EndsTheProcessInTimeWhenTheReportFails)
{
    SKIP_UNDER_SANITIZERS();
    const Death deaths[] = {
        {"the report faults", SIGABRT, "Got signal (SIGABRT 6",
         [] {
             BreakReports([](std::string_view) { WriteToNull(); });
             std::abort();
         }},
        {"the report of guarded code aborts", SIGSEGV, "Got signal (SIGSEGV 11",
         [] {
             BreakReports([](std::string_view) { std::abort(); });
             RunGuarded(WriteToNull);
         }},
        {"the report throws", SIGSEGV, "Got signal (SIGSEGV 11",
         [] {
             BreakReports([](std::string_view text) { throw text; });
             WriteToNull();
         }},
        {"the report hangs, and the alarm is blocked", SIGQUIT, "Got signal (SIGQUIT 3",
         [] {
             BreakReports([](std::string_view) {
                 for (;;)
                     ::pause();
             });
             sigset_t all;
             ::sigfillset(&all);
             ::sigdelset(&all, SIGQUIT);
             ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
             ::raise(SIGQUIT);
         }},
        {"the heap is locked, even under a guard", SIGSEGV, "Got signal (SIGSEGV 11",
         [] { RunGuarded(FaultInMalloc); }},
    };
    for (const Death& death : deaths) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Count(ExpectDeath(death), "Got signal ("), 1u) << death.name;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
}

TEST(SigWatcher, ReportsWithoutTheHeapWhatInterruptsMalloc)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {
            ::raise(SIGURG);
            ::mprotect(sUnreadable,
                       static_cast<std::size_t>(static_cast<char*>(::sbrk(0)) - sUnreadable),
                       PROT_READ | PROT_WRITE);
        };
        ::sigaction(SIGSEGV, &action, nullptr);
        FaultInMalloc();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err.find("Got signal (SIGURG 23) "), 0u) << result.err;
    EXPECT_NE(result.err.find("malloc"), std::string::npos) << "no trace: " << result.err;
}

TEST(SigWatcher, TurnsAFaultOfGuardedCodeIntoAnException)
{
    SKIP_UNDER_SANITIZERS();
    const struct {
        const char* line;
        Body body;
    } rows[] = {
        {"Got signal (SIGSEGV 11) Segmentation fault (SEGV_MAPERR),", WriteToNull},
        {"Got signal (SIGFPE 8) ", DivideByZero},
        {"Got signal (SIGBUS 7) Bus error (BUS_ADRERR)", ReadBehindTheEndOfAFile},
        {"Got signal (SIGILL 4) ", [] { __builtin_trap(); }},
        {"Got signal (SIGTRAP 5) ", [] { asm volatile("int3"); }},
        {"Got signal (SIGSEGV 11) Segmentation fault (SI_TKILL ),", [] { ::raise(SIGSEGV); }},
        {"Got signal (SIGSEGV 11) ",
         [] {
             const char* volatile nowhere = nullptr;
             std::cout << std::strlen(nowhere);
         }},
        // An exception is on its way, but not to the innermost guard.
        {"Got signal (SIGSEGV 11) ",
         [] {
             struct Guarding {
                 ~Guarding() { RunGuarded(WriteToNull); }
             };
             try {
                 const Guarding guarding;
                 throw 1;
             } catch (int) {
             }
         }},
    };
    constexpr std::size_t rounds = 3;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        const auto result = RunWatched([&] {
            std::size_t destroyed = 0;
            const auto run = [&] {
                const std::unique_ptr<std::size_t, void (*)(std::size_t*)> witness(
                    &destroyed, [](std::size_t* count) { ++*count; });
                row.body();
            };
            for (std::size_t i = 0; i < rounds; ++i)
                RunGuarded(run);
            EXPECT_EQ(destroyed, rounds);
        });
        EXPECT_EQ(result.exitCode, 0) << result.err << result.signal;
        EXPECT_EQ(Count(result.err, std::string(": ") + row.line), rounds);
        const std::string caught = std::string("Catch an exception : '") + row.line;
        EXPECT_EQ(Count(result.err, caught), rounds) << result.err;
        EXPECT_LT(result.err.find("[0x"), result.err.find(caught)) << "no trace";
    }
}

TEST(SigWatcher, EndsGuardedCodeWhenTheFaultIsNotItsOwnToSurvive)
{
    SKIP_UNDER_SANITIZERS();
    const Death deaths[] = {
        {"termination", SIGTERM, "Got signal (SIGTERM", [] { ::kill(::getpid(), SIGTERM); }},
        {"abort", SIGABRT, "Got signal (SIGABRT", [] { std::abort(); }},
        {"from outside", SIGSEGV, "Got signal (SIGSEGV", [] { ::kill(::getpid(), SIGSEGV); }},
        {"from another thread", SIGSEGV, "Got signal (SIGSEGV",
         [] {
             const pthread_t self = ::pthread_self();
             std::thread([self] { ::pthread_kill(self, SIGSEGV); }).join();
             for (;;)
                 ::pause();
         }},
        {"banned", SIGSEGV, "Got signal (SIGSEGV",
         [] {
             const ky::impl::ScopedCrashThrowBan ban;
             WriteToNull();
         }},
        {"in a destructor on the way to the guard", SIGSEGV, "Got signal (SIGSEGV",
         [] {
             const FaultingDestructor faulting;
             throw 1;
         }},
        {"in a destructor after a fault", SIGSEGV, "Got signal (SIGSEGV",
         [] {
             const FaultingDestructor faulting;
             DivideByZero();
         }},
        {"no frame to unwind", SIGSEGV, "Got signal (SIGSEGV", CallNull},
    };
    for (const Death& death : deaths)
        ExpectDeath({death.name, death.signal, death.report, [&] { RunGuarded(death.body); }});
}

TEST(SigWatcher, LogsTheCrashThoughItsStackCannotBeWalked)
{
    SKIP_UNDER_SANITIZERS();
    for (const Body& body : {Body(JumpToNowhere), Body([] { RunGuarded(JumpToNowhere); })}) {
        const auto result = RunWatched(body);
        EXPECT_EQ(result.signal, SIGSEGV);
        EXPECT_EQ(Count(result.err, ": Got signal (SIGSEGV 11"), 1u) << result.err;
    }
}

TEST(SigWatcher, RestoresWhatWasThereBeforeIt)
{
    const auto prepare = [] {
        struct sigaction host = {};
        host.sa_handler = HostHandler;
        host.sa_flags = SA_RESTART;
        ::sigaddset(&host.sa_mask, SIGUSR1);
        ::sigaction(SIGUSR2, &host, nullptr);
        ::sigaction(SIGINT, &host, nullptr);
        ::signal(SIGHUP, SIG_IGN);
        ::signal(SIGURG, SIG_IGN);
        ::signal(SIGPIPE, SIG_DFL);
    };
    const auto check = [](bool isRegistered) {
        EXPECT_EQ(IsSigWatcherRegistered(), isRegistered);
        EXPECT_NE(CurrentAction(SIGUSR2).sa_handler, HostHandler);
        EXPECT_NE(CurrentAction(SIGHUP).sa_handler, SIG_IGN);
        EXPECT_EQ(CurrentAction(SIGPIPE).sa_handler, SIG_IGN);
        const int flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK | SA_RESTART;
        EXPECT_EQ(CurrentAction(SIGTERM).sa_flags & (flags | static_cast<int>(SA_RESETHAND)),
                  SA_SIGINFO | SA_NODEFER | SA_ONSTACK);
    };
    const auto result = RunWatched(
        [&] {
            check(true);
            ReleaseSigWatcher();
            check(false);
            // What the host sets meanwhile counts, what the crash handler sets does not.
            ::signal(SIGINT, OtherHostHandler);
            ky::impl::SetDefaultAction(SIGURG);
            RegisterSigWatcher();
            RegisterSigWatcher();
            check(true);
            ReleaseSigWatcher();
            UnregisterSigWatcher();
            EXPECT_FALSE(IsSigWatcherRegistered());
            EXPECT_EQ(CurrentAction(SIGUSR2).sa_handler, HostHandler);
            EXPECT_NE(CurrentAction(SIGUSR2).sa_flags & SA_RESTART, 0);
            const sigset_t mask = CurrentAction(SIGUSR2).sa_mask;
            EXPECT_EQ(::sigismember(&mask, SIGUSR1), 1);
            EXPECT_EQ(CurrentAction(SIGINT).sa_handler, OtherHostHandler);
            EXPECT_EQ(CurrentAction(SIGHUP).sa_handler, SIG_IGN);
            EXPECT_EQ(CurrentAction(SIGURG).sa_handler, SIG_IGN);
            EXPECT_EQ(CurrentAction(SIGPIPE).sa_handler, SIG_DFL);
            // Nothing is left to restore: the host's next action stays.
            ::signal(SIGUSR2, OtherHostHandler);
            UnregisterSigWatcher();
            EXPECT_EQ(CurrentAction(SIGUSR2).sa_handler, OtherHostHandler);
        },
        prepare);
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(SigWatcher, LetsAProgramStartWithTheSignalsThatTheHostHad)
{
    std::string expected;
    for (const bool isWatched : {false, true}) {
        const auto result = ky::test::RunCommand(
            {"grep", "-E", "^Sig(Ign|Blk)", "/proc/self/status"}, {}, [isWatched] {
                UnregisterSigWatcher();
                ::signal(SIGHUP, SIG_IGN);
                ::signal(SIGPIPE, SIG_DFL);
                if (isWatched)
                    RegisterSigWatcher();
                // The host's own wish, after the registration.
                ::signal(SIGQUIT, SIG_IGN);
                sigset_t mask;
                ::sigfillset(&mask);
                ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
                ::sigemptyset(&mask);
                ::sigaddset(&mask, SIGWINCH);
                ky::impl::PrepareSignalsForExec(mask);
            });
        EXPECT_EQ(result.exitCode, 0) << result.err;
        // SIGWINCH is number 28.
        EXPECT_NE(result.out.find("SigBlk:\t0000000008000000\n"), std::string::npos) << result.out;
        EXPECT_TRUE(!isWatched || result.out == expected) << result.out << expected;
        expected = result.out;
    }
}

TEST(SigWatcher, LeavesNoHandlerToAChildThatCannotExec)
{
    const auto result = RunWatched([] {
        sigset_t none;
        ::sigemptyset(&none);
        ky::impl::PrepareSignalsForExec(none);
        ::raise(SIGUSR1);
    });
    EXPECT_EQ(result.signal, SIGUSR1);
    EXPECT_EQ(result.err, "");
}

TEST(SigWatcher, SkipsASignalThatTheSystemRefuses)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched(
        [] {
            EXPECT_TRUE(IsSigWatcherRegistered());
            EXPECT_EQ(CurrentAction(SIGUSR1).sa_handler, HostHandler);
            EXPECT_NE(CurrentAction(SIGUSR2).sa_handler, SIG_DFL);
            UnregisterSigWatcher();
            EXPECT_EQ(CurrentAction(SIGUSR1).sa_handler, HostHandler);
        },
        [] {
            ::signal(SIGUSR1, HostHandler);
            // Fails every change of SIGUSR1; without a new action the call only asks.
            sock_filter filter[] = {
                BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigaction, 0, 5),
                BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SIGUSR1, 0, 3),
                BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0),
                BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
                BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
            };
            const sock_fprog program = {sizeof filter / sizeof filter[0], filter};
            ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
            ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
        });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(Count(result.err, ": Failed to register signal 10\n"), 1u) << result.err;
    EXPECT_EQ(Count(result.err, "\n"), 1u) << result.err;
}

TEST(SignalStack, BelongsToAThreadThatHasNone)
{
    std::thread([] {
        const auto current = [] {
            stack_t stack = {};
            ::sigaltstack(nullptr, &stack);
            return stack;
        };
        std::vector<char> memory(65536);
        stack_t own = {};
        // A thread of a sanitizer has one from birth.
        const stack_t atBirth = current();
        own.ss_flags = SS_DISABLE;
        ::sigaltstack(&own, nullptr);
        {
            const ky::impl::ScopedSignalStack stack;
            const void* const address = current().ss_sp;
            EXPECT_EQ(current().ss_flags, 0);
            EXPECT_GE(current().ss_size, 65536u);
            {
                const ky::impl::ScopedSignalStack second;
            }
            EXPECT_EQ(current().ss_sp, address);
        }
        EXPECT_EQ(current().ss_flags, SS_DISABLE);
        {
            const ky::impl::ScopedSignalStack stack;
            own.ss_flags = 0;
            own.ss_sp = memory.data();
            own.ss_size = memory.size();
            ::sigaltstack(&own, nullptr);
        }
        EXPECT_EQ(current().ss_sp, memory.data()) << "the host's own was taken away";
        ::sigaltstack(&atBirth, nullptr);
    }).join();
}

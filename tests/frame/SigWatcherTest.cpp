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
#include <thread>

#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_SANITIZERS() GTEST_SKIP() << "the sanitizers have handlers of their own"
#else
#define SKIP_UNDER_SANITIZERS() static_cast<void>(0)
#endif

using ky::exception::IsSigWatcherRegistered;
using ky::exception::impl::RegisterSigWatcher;
using ky::exception::impl::ReleaseSigWatcher;
using ky::exception::impl::UnregisterSigWatcher;

namespace {

using Body = std::function<void()>;

/// Runs `body` in a child in which the watcher has just been registered, whatever other tests have
/// left behind.
ky::test::ChildResult RunWatched(const Body& body)
{
    return ky::test::RunInChild([&] {
        const rlimit noCore = {0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        UnregisterSigWatcher();
        RegisterSigWatcher();
        body();
    });
}

void RunGuarded(const Body& body)
{
    ky::exception::impl::ExecGuardedCode(
        [](void* argument) { (*static_cast<const Body*>(argument))(); }, const_cast<Body*>(&body));
}

struct sigaction CurrentAction(int signal)
{
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action;
}

void HostHandler(int) {}

int* volatile sNull = nullptr;

void WriteToNull()
{
    *static_cast<volatile int*>(sNull) = 1;
}

[[gnu::noinline]] int OverflowTheStack(int depth)
{
    volatile char frame[1024] = {};
    frame[static_cast<std::size_t>(depth) % sizeof frame] = 1;
    return depth < 0 ? 0 : OverflowTheStack(depth + 1) + frame[0];
}

/// The heap of a second thread is locked while free(3) looks for the end of a block, which this one
/// has in the last page of the 64 MiB that are reserved for that heap. That page may have been in
/// use: the heap can be one that an ended thread has left.
void FaultInFree()
{
    constexpr std::uintptr_t reserveBytes = 64UL << 20;
    constexpr std::size_t pageBytes = 4096;
    auto* volatile const block = static_cast<volatile std::size_t*>(std::malloc(65536));
    const std::uintptr_t chunk = reinterpret_cast<std::uintptr_t>(block) - 2 * sizeof *block;
    const std::uintptr_t lastPage = (chunk | (reserveBytes - 1)) + 1 - pageBytes;
    ::mprotect(reinterpret_cast<void*>(lastPage), pageBytes, PROT_NONE);
    block[-1] = (lastPage - chunk) | (block[-1] & 7U);
    std::free(const_cast<std::size_t*>(block));
}

struct Finally {
    Body body;
    ~Finally() { body(); }
};

struct Death {
    const char* name;
    int signal;
    Body body;
    void (*sink)(std::string_view) = nullptr;
};

/// Each in time, with one report of the signal, with its trace and the modules.
void ExpectDeaths(std::initializer_list<Death> deaths)
{
    for (const Death& death : deaths) {
        SCOPED_TRACE(death.name);
        const auto begin = std::chrono::steady_clock::now();
        const auto result = RunWatched([&death] {
            ky::impl::SetReportSinks(nullptr, death.sink);
            const sigset_t alarm = {{1UL << (SIGALRM - 1)}};
            ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
            death.body();
        });
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
        EXPECT_EQ(result.signal, death.signal);
        const std::string line = std::string("Got signal (SIG") + ::sigabbrev_np(death.signal);
        EXPECT_EQ(result.err.find("Got signal ("), result.err.rfind("Got signal (")) << result.err;
        const std::size_t frame = result.err.find("[0x", result.err.find(line));
        EXPECT_NE(frame, std::string::npos) << result.err;
        const std::size_t place = result.err.find("Interrupted at 0x", frame);
        EXPECT_LT(place, result.err.find("Module 0x", place)) << result.err;
    }
}

}  // namespace

TEST(SigWatcher, ReportsTheCrashWithATraceAndDiesOfTheSignal)
{
    SKIP_UNDER_SANITIZERS();
    ExpectDeaths({
        {"null", SIGSEGV, WriteToNull},
        {"exception of a plain thread", SIGABRT, [] { std::thread([] { throw 1; }).join(); }},
        {"overflow", SIGSEGV, [] { OverflowTheStack(0); }},
    });
}

TEST(SigWatcher, TellsWhoSentTheSignal)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched([] {
        ReleaseSigWatcher();  // the handlers stay
        if (::fork() == 0) {
            std::cout << ::getpid() << std::flush;
            ::_exit(::kill(::getppid(), SIGTERM));
        }
        ::pause();
    });
    EXPECT_EQ(result.signal, SIGTERM);
    const std::string start = " (SI_USER), from PID " + result.out + ", PID ";
    const std::string end = "B, sent by UID " + std::to_string(::getuid()) + "\n";
    EXPECT_LT(result.err.find(start), result.err.find(end)) << result.err;
    EXPECT_NE(result.err.find(end), std::string::npos) << result.err;
}

TEST(SigWatcher, GoesOnWhereTheDefaultActionDoes)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched([] {
        ::setsid();  // the system stops no member of a group that nobody outside could wake
        errno = ERANGE;
        // kept: the default action stays, so a second one is not reported.
        for (const int signal : {SIGURG, SIGURG, SIGTSTP})
            ::raise(signal);
        EXPECT_EQ(errno, ERANGE);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::size_t urgent = result.err.find("Got signal (SIGURG 23) Urgent I/O condition (SI_");
    EXPECT_LT(urgent, result.err.find("Got signal (SIGTSTP 20) Stopped (SI_TKILL ),"));
    EXPECT_EQ(urgent, result.err.rfind("Got signal (SIGURG")) << result.err;
}

TEST(SigWatcher, EndsTheProcessInTimeWhenTheReportFails)
{
    SKIP_UNDER_SANITIZERS();
    const auto freeInThread = [] { std::thread([] { RunGuarded(FaultInFree); }).join(); };
    ExpectDeaths({
        {"faults", SIGABRT, std::abort, [](std::string_view) { WriteToNull(); }},
        {"aborts", SIGSEGV, [] { RunGuarded(WriteToNull); },
         [](std::string_view) { std::abort(); }},
        {"faults at the trace", SIGABRT, std::abort,
         [](std::string_view lines) {
             if (lines.substr(0, 5) != "Got s")
                 WriteToNull();
         }},
        {"throws", SIGSEGV, WriteToNull, [](std::string_view text) { throw text; }},
        {"hangs", SIGABRT, std::abort, [](std::string_view) { ::sleep(300); }},
        {"has no heap", SIGSEGV, freeInThread},
    });
}

TEST(SigWatcher, ReportsWithoutTheHeapWhatInterruptsFree)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched([] {
        ::signal(SIGSEGV, [](int) { ::_exit(::raise(SIGURG)); });
        std::thread(FaultInFree).join();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err.find("Got signal (SIGURG 23) "), 0u) << result.err;
    EXPECT_NE(result.err.find("free"), std::string::npos) << "no trace: " << result.err;
}

TEST(SigWatcher, TurnsAFaultOfGuardedCodeIntoAnException)
{
    SKIP_UNDER_SANITIZERS();
    const std::pair<const char*, Body> rows[] = {
        {"Got signal (SIGSEGV 11) Segmentation fault (SEGV_MAPERR),", WriteToNull},
        {"Got signal (SIGFPE 8) ", [] { ::raise(SIGFPE); }},
        {"Got signal (SIGBUS 7) Bus error (SI_TKILL ),", [] { ::raise(SIGBUS); }},
        {"Got signal (SIGILL 4) ", [] { __builtin_trap(); }},
        // An exception is on its way, but not to the innermost guard.
        {"Got signal (SIGSEGV 11) ",
         [] {
             const Finally guarding{[] { RunGuarded(WriteToNull); }};
             throw 1;
         }},
    };
    for (const auto& [line, body] : rows) {
        SCOPED_TRACE(line);
        const auto result = RunWatched([&body] {
            int destroyed = 0;
            for (int i = 0; i < 2; ++i)
                RunGuarded([&] {
                    const Finally witness{[&] { ++destroyed; }};
                    body();
                });
            EXPECT_EQ(destroyed, 2);
        });
        EXPECT_EQ(result.exitCode, 0) << result.err << result.signal;
        const std::string caught = std::string("Catch an exception : '") + line;
        EXPECT_LT(result.err.find(std::string(": ") + line), result.err.find("[0x")) << result.err;
        EXPECT_LT(result.err.find("[0x"), result.err.find(caught)) << "no trace";
        EXPECT_LT(result.err.find(caught), result.err.rfind(caught)) << result.err;
    }
}

TEST(SigWatcher, EndsGuardedCodeWhenTheFaultIsNotItsOwnToSurvive)
{
    SKIP_UNDER_SANITIZERS();
    const auto signalFromThread = [] {
        std::thread([self = ::pthread_self()] { ::pthread_kill(self, SIGSEGV); }).join();
    };
    const auto callNull = [] { reinterpret_cast<void (*)()>(sNull)(); };
    const auto faultUnderBan = [] {
        const ky::impl::ScopedCrashThrowBan ban;
        WriteToNull();
    };
    const auto faultInDestructor = [] {
        const Finally faulting{WriteToNull};
        throw 1;
    };
    ExpectDeaths({
        {"abort", SIGABRT, [] { RunGuarded(std::abort); }},
        {"outside", SIGSEGV, [] { RunGuarded([] { ::kill(::getpid(), SIGSEGV); }); }},
        {"another thread", SIGSEGV, [&] { RunGuarded(signalFromThread); }},
        {"banned", SIGSEGV, [&] { RunGuarded(faultUnderBan); }},
        {"on the way to the guard", SIGSEGV, [&] { RunGuarded(faultInDestructor); }},
        {"no frame", SIGSEGV, [&] { RunGuarded(callNull); }},
    });
}

TEST(SigWatcher, RestoresWhatWasThereBeforeIt)
{
    const auto result = RunWatched([] {
        UnregisterSigWatcher();
        struct sigaction host = {};
        host.sa_handler = HostHandler;
        host.sa_flags = SA_RESTART;
        ::sigaddset(&host.sa_mask, SIGUSR1);
        ::sigaction(SIGUSR2, &host, nullptr);
        ::signal(SIGURG, SIG_IGN);
        ::signal(SIGPIPE, SIG_DFL);
        RegisterSigWatcher();
        ReleaseSigWatcher();
        EXPECT_FALSE(IsSigWatcherRegistered());
        // What the host sets meanwhile counts, what the crash handler sets does not.
        ::signal(SIGINT, HostHandler);
        ky::impl::SetDefaultAction(SIGURG);
        RegisterSigWatcher();
        RegisterSigWatcher();
        EXPECT_TRUE(IsSigWatcherRegistered());
        EXPECT_EQ(CurrentAction(SIGPIPE).sa_handler, SIG_IGN);
        UnregisterSigWatcher();
        host = CurrentAction(SIGUSR2);
        EXPECT_EQ(host.sa_handler, HostHandler);
        EXPECT_TRUE((host.sa_flags & SA_RESTART) && ::sigismember(&host.sa_mask, SIGUSR1));
        EXPECT_EQ(CurrentAction(SIGINT).sa_handler, HostHandler);
        EXPECT_EQ(CurrentAction(SIGURG).sa_handler, SIG_IGN);
        EXPECT_EQ(CurrentAction(SIGPIPE).sa_handler, SIG_DFL);
        // Nothing is left to restore: the host's next action stays.
        ::signal(SIGUSR2, SIG_IGN);
        UnregisterSigWatcher();
        EXPECT_EQ(CurrentAction(SIGUSR2).sa_handler, SIG_IGN);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(SignalStack, BelongsToAThreadThatHasNone)
{
    std::thread([] {
        char memory[65536];
        stack_t atBirth = {};  // a thread of a sanitizer has one
        ::sigaltstack(nullptr, &atBirth);
        for (const int flags : {0, int{SS_DISABLE}}) {
            stack_t now = {memory, flags, sizeof memory};
            ::sigaltstack(&now, nullptr);
            {
                const ky::impl::ScopedSignalStack stack;
                ::sigaltstack(nullptr, &now);
                EXPECT_TRUE(now.ss_flags == 0 && (now.ss_sp == memory) == (flags == 0));
            }
            ::sigaltstack(nullptr, &now);
            EXPECT_EQ(now.ss_flags, flags);
        }
        ::sigaltstack(&atBirth, nullptr);
    }).join();
}

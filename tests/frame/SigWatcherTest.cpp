#include "ky/kyException.h"

#include "frame/Guard.h"
#include "frame/Report.h"
#include "frame/WatchedSignals.h"
#include "support/Child.h"
#include "support/Crashes.h"

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

using ky::exception::IsSigWatcherRegistered;
using ky::exception::impl::RegisterSigWatcher;
using ky::exception::impl::ReleaseSigWatcher;
using ky::exception::impl::UnregisterSigWatcher;
using ky::test::Contains;
using ky::test::WriteToNull;

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

sighandler_t HandlerOf(int signal)
{
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler;
}

void HostHandler(int) {}

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

/// Dies of `signal` in time, with one report of it, with its trace and the modules. `sink` stands
/// for the log.
void ExpectDeath(const char* name, int signal, const Body& body, ky::impl::CrashSink sink = nullptr)
{
    SCOPED_TRACE(name);
    const auto begin = std::chrono::steady_clock::now();
    const auto result = RunWatched([&] {
        ky::impl::SetReportSinks(nullptr, sink);
        const sigset_t alarm = {{1UL << (SIGALRM - 1)}};
        ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
        body();
    });
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(result.signal, signal);
    const std::string line = std::string("Got signal (SIG") + ::sigabbrev_np(signal);
    EXPECT_EQ(result.err.find("Got signal ("), result.err.rfind("Got signal (")) << result.err;
    const std::size_t frame = result.err.find("[0x", result.err.find(line));
    const std::size_t place = result.err.find("Interrupted at 0x", frame);
    EXPECT_LT(place, result.err.find("Module 0x", place)) << result.err;
}

}  // namespace

TEST(SigWatcher, ReportsTheCrashWithATraceAndDiesOfTheSignalInTimeEvenIfTheReportFails)
{
    SKIP_UNDER_SANITIZERS();
    ExpectDeath("null", SIGSEGV, WriteToNull);
    ExpectDeath("overflow", SIGSEGV, [] { ky::test::OverflowStack(); });
    ExpectDeath("report faults", SIGABRT, std::abort, [](std::string_view) { WriteToNull(); });
    ExpectDeath(
        "report aborts", SIGSEGV, [] { RunGuarded(WriteToNull); },
        [](std::string_view) { std::abort(); });
    ExpectDeath("report faults at the trace", SIGABRT, std::abort, [](std::string_view lines) {
        if (lines.substr(0, 5) != "Got s")
            WriteToNull();
    });
    ExpectDeath("report throws", SIGSEGV, WriteToNull, [](std::string_view text) { throw text; });
    ExpectDeath("report hangs", SIGABRT, std::abort, [](std::string_view) { ::sleep(300); });
    ExpectDeath("no heap", SIGSEGV, [] { std::thread([] { RunGuarded(FaultInFree); }).join(); });
}

TEST(SigWatcher, GoesOnWhereTheDefaultActionDoesAndTellsWhoSentTheSignal)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunWatched([] {
        ReleaseSigWatcher();  // the handlers stay
        ::setsid();  // the system stops no member of a group that nobody outside could wake
        errno = ERANGE;
        // kept: the default action stays, so a second one is not reported.
        for (const int signal : {SIGURG, SIGURG, SIGTSTP})
            ::raise(signal);
        EXPECT_EQ(errno, ERANGE);
        if (::fork() == 0) {
            std::cout << ::getpid() << std::flush;
            ::_exit(::kill(::getppid(), SIGTERM));
        }
        ::pause();
    });
    EXPECT_EQ(result.signal, SIGTERM);
    const std::size_t urgent = result.err.find("Got signal (SIGURG 23) Urgent I/O condition (SI_");
    EXPECT_LT(urgent, result.err.find("Got signal (SIGTSTP 20) Stopped (SI_TKILL ),"));
    EXPECT_EQ(urgent, result.err.rfind("Got signal (SIGURG")) << result.err;
    EXPECT_TRUE(Contains(result.err, " (SI_USER), from PID " + result.out + ", PID "));
    EXPECT_TRUE(Contains(result.err, "B, sent by UID " + std::to_string(::getuid()) + "\n"));
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
    EXPECT_TRUE(Contains(result.err, "free")) << "no trace: " << result.err;
}

TEST(SigWatcher, TurnsAFaultOfGuardedCodeIntoAnException)
{
    SKIP_UNDER_SANITIZERS();
    const std::pair<const char*, Body> rows[] = {
        {"Got signal (SIGSEGV 11) Segmentation fault (SEGV_MAPERR),", WriteToNull},
        {"Got signal (SIGFPE 8) ", [] { ::raise(SIGFPE); }},
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
        const std::size_t first = result.err.find(caught);
        EXPECT_LT(result.err.find("[0x"), first) << "no trace: " << result.err;
        EXPECT_LT(first, result.err.rfind(caught)) << result.err;
    }
}

TEST(SigWatcher, EndsGuardedCodeWhenTheFaultIsNotItsOwnToSurvive)
{
    SKIP_UNDER_SANITIZERS();
    const std::pair<const char*, Body> faults[] = {
        {"outside", [] { ::kill(::getpid(), SIGSEGV); }},
        {"another thread",
         [] { std::thread([self = ::pthread_self()] { ::pthread_kill(self, SIGSEGV); }).join(); }},
        {"banned",
         [] {
             const ky::impl::ScopedCrashThrowBan ban;
             WriteToNull();
         }},
        {"on the way to the guard",
         [] {
             const Finally faulting{WriteToNull};
             throw 1;
         }},
        {"no frame", [] { reinterpret_cast<void (*)()>(ky::test::sNull)(); }},
    };
    ExpectDeath("abort", SIGABRT, [] { RunGuarded(std::abort); });
    for (const auto& [name, fault] : faults)
        ExpectDeath(name, SIGSEGV, [&body = fault] { RunGuarded(body); });
}

TEST(SigWatcher, RestoresWhatWasThereBeforeIt)
{
    ky::test::ExpectChildPasses([] {
        UnregisterSigWatcher();
        ::signal(SIGUSR2, HostHandler);
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
        EXPECT_EQ(HandlerOf(SIGPIPE), SIG_IGN);
        UnregisterSigWatcher();
        EXPECT_EQ(HandlerOf(SIGUSR2), HostHandler);
        EXPECT_EQ(HandlerOf(SIGINT), HostHandler);
        EXPECT_EQ(HandlerOf(SIGURG), SIG_IGN);
        EXPECT_EQ(HandlerOf(SIGPIPE), SIG_DFL);
        // Nothing is left to restore: the host's next action stays.
        ::signal(SIGUSR2, SIG_IGN);
        UnregisterSigWatcher();
        EXPECT_EQ(HandlerOf(SIGUSR2), SIG_IGN);
    });
}

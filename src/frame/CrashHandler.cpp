#include "frame/CrashHandler.h"

#include "frame/CancelBan.h"
#include "frame/CrashLine.h"
#include "frame/CrashTrace.h"
#include "frame/Guard.h"
#include "frame/Report.h"
#include "frame/SignalDelay.h"
#include "frame/StackWalk.h"
#include "frame/WatchedSignals.h"

#include <atomic>
#include <stdexcept>
#include <string>

#include <pthread.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>

namespace ky::impl {
namespace {

// The log gives up on a stuck thread of its own before that, and a process whose report hangs all
// the same is gone within five seconds.
constexpr unsigned int sReportSeconds = 4;

/// A signal that a thread is reporting. Lives on that thread's stack.
struct Crash {
    Crash(int crashSignal, const ucontext_t& context) noexcept
        : signal(crashSignal),
          fatalSignal(crashSignal),
          trace(static_cast<std::uintptr_t>(context.uc_mcontext.gregs[REG_RIP]))
    {}

    const int signal;
    bool endsProcess = false;
    std::atomic<int> fatalSignal;  // what the process dies of, when it does
    std::atomic<bool> isReported{false};
    std::atomic<int> traceAttempts{0};
    CrashLine line;
    CrashTrace trace;
    unsigned int hostAlarmSeconds = 0;
    struct sigaction hostAlarmAction = {};
};

// With this model no access allocates.
[[gnu::tls_model("initial-exec")]] constinit thread_local Crash* tCurrent = nullptr;

// The report that the alarm is for, the first in the process that was to end it. The process is
// noted beside it because a forked child finds its parent's, on a stack that it does not have.
constinit std::atomic<Crash*> sAlarmed{nullptr};
constinit std::atomic<pid_t> sAlarmedProcess{0};

/// A signal that an instruction of the thread itself may cause.
bool IsFault(int signal) noexcept
{
    return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL ||
           signal == SIGTRAP || signal == SIGSYS;
}

/// Whether the process lives on after the signal's default action.
bool GoesOn(int signal) noexcept
{
    return signal == SIGURG || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
}

/// A signal sent with pthread_kill(3) by another thread looks like one from raise(3), but only the
/// latter interrupts the thread in its own system call, whose arguments the registers still hold.
bool IsRaisedHere(int signal, const siginfo_t& info, const ucontext_t& context) noexcept
{
    const auto& registers = context.uc_mcontext.gregs;
    return info.si_code == SI_TKILL && info.si_pid == ::getpid() &&
           registers[REG_RDI] == ::getpid() && registers[REG_RSI] == ::syscall(SYS_gettid) &&
           registers[REG_RDX] == signal;
}

bool MayThrow(int signal, const siginfo_t& info, const ucontext_t& context) noexcept
{
    if (!IsFault(signal) || !HasReadyGuard())
        return false;
    if (info.si_code <= 0 && !IsRaisedHere(signal, info, context))
        return false;
    if (!IsUnwindable(static_cast<std::uintptr_t>(context.uc_mcontext.gregs[REG_RIP])))
        return false;
    // After a fault in malloc(3) its lock stays locked: neither the report nor the guard, nor
    // anyone else, would get any memory again, and a process that goes on would only hang.
    const StackFacts facts = LookAtStack();
    return facts.reachesGuard && !facts.isInAllocator;
}

void Unblock(int signal) noexcept
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void TakeDefaultAction(int signal) noexcept
{
    SetDefaultAction(signal);
    Unblock(signal);
    static_cast<void>(::raise(signal));
}

/// The report as far as it needs no memory. When an attempt at the trace has failed, in an unlucky
/// moment of the dynamic linker or in the log, a second one goes without names and to standard
/// error, with the first line once more, so that a report is in one place.
void WriteUnlessReported(Crash& crash) noexcept
{
    constexpr int done = 2;
    const bool isReported = crash.isReported.exchange(true, std::memory_order_relaxed);
    const int attempts = crash.traceAttempts.fetch_add(1, std::memory_order_relaxed);
    if (!isReported || attempts == 1)
        crash.line.writeToStandardError();
    if (attempts == 0) {
        // The stack of another thread cannot be walked from here.
        if (tCurrent == &crash)
            crash.trace.walk();
        crash.trace.writeToStandardError(CrashTrace::Names::With);
        crash.traceAttempts.store(done, std::memory_order_relaxed);
    } else if (attempts == 1) {
        crash.trace.writeToStandardError(CrashTrace::Names::Without);
    }
}

/// On whichever thread the alarm of a stuck report finds. An alarm of someone else's is none.
void RelayAlarm(int, siginfo_t* info, void*)
{
    Crash* const crash = sAlarmed.load(std::memory_order_acquire);
    if (crash == nullptr || info->si_code != SI_KERNEL)
        return;
    const int savedErrno = errno;
    // The trace asks the dynamic linker for names, and the crash may have left that locked: the
    // next alarm tries without names, and the one after that finds both tried.
    ::alarm(1);
    WriteUnlessReported(*crash);
    TakeDefaultAction(crash->fatalSignal.load(std::memory_order_relaxed));
    errno = savedErrno;
}

/// The first thread that crashes sets the time limit for the process.
void ArmAlarm(Crash& crash) noexcept
{
    const pid_t process = ::getpid();
    if (sAlarmedProcess.exchange(process, std::memory_order_relaxed) == process)
        return;
    // Release: the relay may run on another thread.
    sAlarmed.store(&crash, std::memory_order_release);
    struct sigaction action = {};
    action.sa_sigaction = RelayAlarm;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    ::sigaction(SIGALRM, &action, &crash.hostAlarmAction);
    Unblock(SIGALRM);
    crash.hostAlarmSeconds = ::alarm(sReportSeconds);
}

/// When the signal has not ended the process after all: the system spares the first process of a
/// container, and a debugger may.
void DisarmAlarm(Crash& crash) noexcept
{
    if (sAlarmed.load(std::memory_order_relaxed) != &crash)
        return;
    ::alarm(crash.hostAlarmSeconds);
    ::sigaction(SIGALRM, &crash.hostAlarmAction, nullptr);
    sAlarmed.store(nullptr, std::memory_order_relaxed);
    sAlarmedProcess.store(0, std::memory_order_relaxed);
}

/// Marks the thread as being inside the handler, which must not be cancelled half-way.
class HandlerScope {
public:
    explicit HandlerScope(Crash& crash) noexcept : mCrash(crash), mErrno(errno)
    {
        tCurrent = &crash;
    }
    ~HandlerScope()
    {
        DisarmAlarm(mCrash);
        tCurrent = nullptr;
        errno = mErrno;
    }
    HandlerScope(const HandlerScope&) = delete;
    HandlerScope& operator=(const HandlerScope&) = delete;

private:
    Crash& mCrash;
    const int mErrno;
    const CancelBan mBan;
};

/// kept: allocates and locks, and so may hang or fault where the crash has left a lock or damaged
/// the heap. The alarm and the handling of nested signals see to it that the process ends.
void ReportThroughLog(Crash& crash) noexcept
{
    try {
        ReportFromCrash(crash.line.text());
        crash.isReported.store(true, std::memory_order_relaxed);
        // On its own and after the first line, because a walk up a destroyed stack may fault.
        crash.traceAttempts.store(1, std::memory_order_relaxed);
        crash.trace.walk();
        ReportFromCrash(crash.trace.lines());
        crash.traceAttempts.store(2, std::memory_order_relaxed);
    } catch (...) {
        WriteUnlessReported(crash);
    }
}

/// No alarm saves a process that goes on, so this avoids what a signal in the middle of malloc(3)
/// would make hang.
void ReportAndGoOn(Crash& crash) noexcept
{
    if (LookAtStack().isInAllocator)
        WriteUnlessReported(crash);
    else
        ReportThroughLog(crash);
}

/// In the middle of malloc(3) the report would hang on that one's lock, and the log's queue would
/// be lost. Where a fault has hit, nothing is better later.
bool MayComeLater(const Crash& crash, const siginfo_t& info) noexcept
{
    const bool isFault = IsFault(crash.signal) && info.si_code > 0;
    return crash.endsProcess && !isFault && LookAtStack().isInAllocator;
}

/// A signal that arrives while this thread reports one. When it is a fault, the report has failed,
/// and the process dies of the signal that was being reported.
void HandleNested(Crash& outer, int signal) noexcept
{
    if (GoesOn(signal))
        return TakeDefaultAction(signal);
    const bool isReportFailed = IsFault(signal) || signal == SIGABRT;
    if (!outer.endsProcess && !(isReportFailed && IsFault(outer.signal)))
        outer.fatalSignal.store(signal, std::memory_order_relaxed);
    outer.endsProcess = true;
    ArmAlarm(outer);
    WriteUnlessReported(outer);
    TakeDefaultAction(outer.fatalSignal.load(std::memory_order_relaxed));
}

}  // namespace

void HandleCrashSignal(int signal, siginfo_t* information, void* context)
{
    if (tCurrent != nullptr)
        return HandleNested(*tCurrent, signal);
    siginfo_t info = *information;
    RestoreDelayedSignal(info);
    Crash crash(signal, *static_cast<const ucontext_t*>(context));
    const HandlerScope scope(crash);
    crash.line.compose(signal, info);
    if (MayThrow(signal, info, *static_cast<const ucontext_t*>(context))) {
        ReportThroughLog(crash);
        throw std::runtime_error(std::string(crash.line.text()));
    }
    crash.endsProcess = !GoesOn(signal);
    if (MayComeLater(crash, info) && DelaySignal(signal, info))
        return;
    if (crash.endsProcess) {
        ArmAlarm(crash);
        ReportThroughLog(crash);
    } else {
        ReportAndGoOn(crash);
    }
    // kept: the default action stays, so another SIGURG or SIGTSTP is not reported.
    TakeDefaultAction(signal);
}

}  // namespace ky::impl

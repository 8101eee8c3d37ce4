#include "process/LaunchChild.h"

#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <cerrno>
#include <ctime>

// The child runs in the memory of its parent, other threads of which go on, and with the thread
// data of the waiting one. So it calls the kernel itself: functions of the C library would change
// that thread's errno, and some are replaced by sanitizers, which would take the child for the
// parent. For the same reason this file is compiled without instrumentation.

namespace ky::impl {
namespace {

constexpr int sSignals = 64;
constexpr unsigned long sCloneFlags = CLONE_VM | CLONE_VFORK | SIGCHLD;
constexpr std::int64_t sNanosecondsPerSecond = 1000000000;
constexpr std::int64_t sNanosecondsPerMicrosecond = 1000;

/// As the kernel takes it.
struct SignalAction {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    std::uint64_t mask;
};

/// The result is negative, an `errno` value, when the call fails.
long Call(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0) noexcept
{
    long result = number;
    register long fourth asm("r10") = d;
    register long fifth asm("r8") = e;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(a), "S"(b), "d"(c), "r"(fourth), "r"(fifth)
                 : "rcx", "r11", "memory");
    return result;
}

template <typename Pointed>
long Address(Pointed* pointer) noexcept
{
    return reinterpret_cast<long>(pointer);
}

/// clone(2) with `body`, which must not return, on a stack of its own. The kernel keeps `inMemory`,
/// which may be null, other than 0 as long as the new process shares this memory.
long Clone(void* stackTop, std::int32_t* inMemory, void (*body)(LaunchPlan&),
           LaunchPlan& plan) noexcept
{
    const unsigned long flags =
        sCloneFlags | (inMemory != nullptr ? CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID : 0);
    long result = SYS_clone;
    register std::int32_t* childId asm("r10") = inMemory;
    register long noThreadData asm("r8") = 0;
    register void (*childBody)(LaunchPlan&) asm("r12") = body;
    register LaunchPlan* childPlan asm("r13") = &plan;
    asm volatile(
        "syscall\n\t"
        "test %%rax, %%rax\n\t"
        "jnz 1f\n\t"
        "xor %%ebp, %%ebp\n\t"
        "mov %%r13, %%rdi\n\t"
        "call *%%r12\n\t"
        "ud2\n"
        "1:"
        : "+a"(result)
        : "D"(flags), "S"(stackTop), "d"(inMemory), "r"(childId), "r"(noThreadData), "r"(childBody),
          "r"(childPlan)
        : "rcx", "r11", "memory", "cc");
    return result;
}

void WaitUntilZero(const std::int32_t& word) noexcept
{
    while (const std::int32_t value = __atomic_load_n(&word, __ATOMIC_ACQUIRE))
        Call(SYS_futex, Address(&word), FUTEX_WAIT, value);
}

[[noreturn]] void Exit() noexcept
{
    while (true)
        Call(SYS_exit_group, 0);
}

void SetAction(int signal, void (*handler)(int)) noexcept
{
    const SignalAction action = {handler, 0, nullptr, 0};
    Call(SYS_rt_sigaction, signal, Address(&action), 0, sizeof(action.mask));
}

void SetSignalMask(int how, std::uint64_t mask) noexcept
{
    Call(SYS_rt_sigprocmask, how, Address(&mask), 0, sizeof(mask));
}

/// Ends the child as a failed start does, whatever the action and mask that it has inherited.
[[noreturn]] void EndAsFailed() noexcept
{
    SetAction(SIGUSR1, SIG_DFL);
    SetSignalMask(SIG_UNBLOCK, 1UL << (SIGUSR1 - 1));
    Call(SYS_kill, Call(SYS_getpid), SIGUSR1);
    Exit();
}

bool HasHandler(int signal) noexcept
{
    SignalAction current;
    return Call(SYS_rt_sigaction, signal, 0, Address(&current), sizeof(current.mask)) == 0 &&
           current.handler != SIG_DFL && current.handler != SIG_IGN;
}

/// No handler may be left when signals are unblocked: it would run on the parent's data.
void PrepareSignals(const LaunchPlan& plan) noexcept
{
    for (int signal = 1; signal <= sSignals; ++signal) {
        const std::uint64_t bit = 1UL << (signal - 1);
        if ((plan.signalsToIgnore & bit) != 0)
            SetAction(signal, SIG_IGN);
        else if ((plan.signalsToDefault & bit) != 0 || HasHandler(signal))
            SetAction(signal, SIG_DFL);
    }
    SetSignalMask(SIG_SETMASK, plan.signalMask);
}

/// Returns why it failed.
long Execute(LaunchPlan& plan, const char* path) noexcept
{
    const long result =
        Call(SYS_execve, Address(path), Address(plan.arguments), Address(plan.environment));
    if (result != -ENOEXEC)
        return result;
    plan.shellArguments[1] = path;
    return Call(SYS_execve, Address(plan.shellArguments[0]), Address(plan.shellArguments),
                Address(plan.environment));
}

/// Whether a search goes on behind a path that failed this way, as in exec(3), which leaves out
/// folders whose names are too long.
bool IsSearchContinued(long result) noexcept
{
    return result == -EACCES || result == -ENOENT || result == -ENOTDIR || result == -ESTALE ||
           result == -ENODEV || result == -ETIMEDOUT || result == -ENAMETOOLONG;
}

std::int64_t Now(clockid_t clock) noexcept
{
    struct timespec now;
    Call(SYS_clock_gettime, clock, Address(&now));
    return now.tv_sec * sNanosecondsPerSecond + now.tv_nsec;
}

std::int64_t Nanoseconds(const struct timeval& time) noexcept
{
    return time.tv_sec * sNanosecondsPerSecond + time.tv_usec * sNanosecondsPerMicrosecond;
}

/// The time since the start or, for a child that has never waited for anything but a processor,
/// that for which it had one: a busy machine must not make a missing program look like a slow one.
std::int64_t ElapsedNs(std::int64_t beginNs) noexcept
{
    struct rusage used;
    if (Call(SYS_getrusage, RUSAGE_SELF, Address(&used)) == 0 && used.ru_nvcsw == 0)
        return Nanoseconds(used.ru_utime) + Nanoseconds(used.ru_stime);
    return Now(CLOCK_MONOTONIC) - beginNs;
}

[[noreturn]] void BecomeProgram(LaunchPlan& plan) noexcept
{
    PrepareSignals(plan);
    long result = -ENOENT;
    for (const char* const* path = plan.candidates; *path != nullptr && IsSearchContinued(result);
         ++path)
        result = Execute(plan, *path);
    plan.execFailedAfterNs = ElapsedNs(plan.beginNs);
    plan.hasExecFailed = true;
    EndAsFailed();
}

/// The grandchild is the program, or has ended, or is about to: then its end is waited for.
bool HasGrandchildStarted(long grandchild, bool hasExecFailed) noexcept
{
    siginfo_t info;
    info.si_pid = 0;
    info.si_code = 0;
    info.si_status = 0;
    const long result = Call(SYS_waitid, P_PID, grandchild, Address(&info),
                             WEXITED | (hasExecFailed ? 0 : WNOHANG));
    return result == 0 &&
           !(info.si_pid != 0 && info.si_code == CLD_KILLED && info.si_status == SIGUSR1);
}

[[noreturn]] void RunChild(LaunchPlan& plan) noexcept
{
    Call(SYS_setpriority, PRIO_PROCESS, 0, plan.niceValue);
    if (plan.directory != nullptr)
        plan.isDirectoryMissing = Call(SYS_chdir, Address(plan.directory)) != 0;
    if (plan.grandchildStackTop == nullptr)
        BecomeProgram(plan);
    const long grandchild =
        Clone(plan.grandchildStackTop, &plan.grandchildInMemory, BecomeProgram, plan);
    if (grandchild < 0 || !HasGrandchildStarted(grandchild, plan.hasExecFailed))
        EndAsFailed();
    Exit();
}

}  // namespace

pid_t CloneChild(LaunchPlan& plan) noexcept
{
    plan.beginNs = Now(CLOCK_MONOTONIC);
    const long child = Clone(plan.stackTop, nullptr, RunChild, plan);
    // An intermediate child that was killed has not waited for the other one.
    WaitUntilZero(plan.grandchildInMemory);
    return static_cast<pid_t>(child);
}

}  // namespace ky::impl

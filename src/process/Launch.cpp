#include "process/Launch.h"

#include "frame/WatchedSignals.h"
#include "process/LaunchChild.h"
#include "process/ProgramSearch.h"
#include "thread/LaunchMask.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <csignal>
#include <cstring>

namespace ky::impl {
namespace {

constexpr std::size_t sGuardBytes = 4096;
constexpr std::size_t sStackBytes = 32768;

/// Memory for child and grandchild to run on, each stack with a page before it that nobody may
/// touch: an overflow must not reach the parent's data.
class ChildStacks {
public:
    explicit ChildStacks(std::size_t count) : mBytes(count * (sGuardBytes + sStackBytes))
    {
        void* const memory = ::mmap(nullptr, mBytes, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (memory == MAP_FAILED)
            return;
        mMemory = static_cast<char*>(memory);
        mIsUsable = true;
        for (std::size_t i = 0; i < count; ++i) {
            char* const guard = top(i) - sStackBytes - sGuardBytes;
            mIsUsable = ::mprotect(guard, sGuardBytes, PROT_NONE) == 0 && mIsUsable;
            // So that the child has no page fault, which would wait for what busy threads hold.
            top(i)[-1] = 0;
        }
    }
    ~ChildStacks()
    {
        if (mMemory != nullptr)
            ::munmap(mMemory, mBytes);
    }
    ChildStacks(const ChildStacks&) = delete;
    ChildStacks& operator=(const ChildStacks&) = delete;

    explicit operator bool() const { return mIsUsable; }
    char* top(std::size_t index) const
    {
        return mMemory + (index + 1) * (sGuardBytes + sStackBytes);
    }

private:
    const std::size_t mBytes;
    char* mMemory = nullptr;
    bool mIsUsable = false;
};

/// Blocks every signal, those that the C library keeps for itself too: the child has the memory of
/// this thread, and a handler that ran there would change it.
class AllSignalsBlocked {
public:
    AllSignalsBlocked()
    {
        const std::uint64_t all = ~std::uint64_t{0};
        ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &mBefore, sizeof(all));
    }
    ~AllSignalsBlocked()
    {
        ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mBefore, nullptr, sizeof(mBefore));
    }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    std::uint64_t mBefore = 0;
};

std::uint64_t ToKernelSet(const sigset_t& set)
{
    std::uint64_t bits = 0;
    static_assert(sizeof(set) >= sizeof(bits));
    std::memcpy(&bits, &set, sizeof(bits));
    return bits;
}

/// `first`, then the texts, then a null.
std::vector<const char*> Pointers(std::vector<const char*> first,
                                  const std::vector<std::string>& texts)
{
    first.reserve(first.size() + texts.size() + 1);
    for (const std::string& text : texts)
        first.push_back(text.c_str());
    first.push_back(nullptr);
    return first;
}

}  // namespace

LaunchOutcome Launch(const LaunchRequest& request)
{
    const std::vector<std::string> paths = ProgramCandidates(request.program);
    const std::vector<const char*> candidates = Pointers({}, paths);
    const std::vector<const char*> arguments =
        Pointers({request.program.c_str()}, request.arguments);
    std::vector<const char*> shellArguments = Pointers({"/bin/sh", nullptr}, request.arguments);
    const std::vector<const char*> environment = Pointers({}, request.environment);
    const SignalsForExec signals = GetSignalsForExec();
    const ChildStacks stacks(request.isDetached ? 2 : 1);
    LaunchOutcome outcome;
    if (!stacks)
        return outcome;

    LaunchPlan plan = {};
    plan.candidates = candidates.data();
    plan.arguments = arguments.data();
    plan.shellArguments = shellArguments.data();
    plan.environment = environment.data();
    plan.directory = request.directory != nullptr ? request.directory->c_str() : nullptr;
    plan.niceValue = request.niceValue;
    plan.signalMask = ToKernelSet(LaunchSignalMask());
    plan.signalsToIgnore = signals.toIgnore;
    plan.signalsToDefault = signals.toDefault;
    plan.stackTop = stacks.top(0);
    plan.grandchildStackTop = request.isDetached ? stacks.top(1) : nullptr;
    {
        const AllSignalsBlocked blocked;
        outcome.pid = CloneChild(plan);
    }
    outcome.beginNs = plan.beginNs;
    outcome.isDirectoryMissing = plan.isDirectoryMissing;
    outcome.hasExecFailed = plan.hasExecFailed;
    outcome.execFailedAfterNs = plan.execFailedAfterNs;
    return outcome;
}

}  // namespace ky::impl

#include "ky/kyThread.h"

#include "ky/kyException.h"
#include "ky/kySystem.h"
#include "ky/kySystemUtils.h"

#include "frame/ProcessId.h"
#include "frame/SignalStack.h"
#include "frame/ThreadId.h"
#include "thread/EarlyCreation.h"
#include "thread/LaunchMask.h"

#include <climits>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>
#include <thread>
#include <typeinfo>

#include <pthread.h>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace ky {
namespace {

constexpr int sNoTimeLimit = INT_MAX;
constexpr unsigned long sNapMs = 15;
constexpr long sNanosecondsPerSecond = 1000000000;
constexpr std::size_t sSystemNameBytes = 16;  // with the final zero, pthread_setname_np(3)

/// What a thread of the library remembers of the thread that created it.
struct CreationMask {
    bool isKnown;
    sigset_t mask;
};
constinit thread_local CreationMask tCreationMask = {};

/// Blocks everything but what a thread brings on itself, while it lives.
class ScopedSignalBlock {
public:
    ScopedSignalBlock()
    {
        sigset_t blocked;
        ::sigfillset(&blocked);
        for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
            ::sigdelset(&blocked, signal);
        ::pthread_sigmask(SIG_SETMASK, &blocked, &mBefore);
    }
    ~ScopedSignalBlock() { ::pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
    ScopedSignalBlock(const ScopedSignalBlock&) = delete;
    ScopedSignalBlock& operator=(const ScopedSignalBlock&) = delete;

private:
    sigset_t mBefore;
};

}  // namespace

sigset_t impl::LaunchSignalMask() noexcept
{
    if (tCreationMask.isKnown)
        return tCreationMask.mask;
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return mask;
}

struct kyThread::Cell {
    // Not of the class kyMutex, which would log early creations of its own.
    std::mutex mutex;  // held while somebody starts or joins
    std::mutex gate;   // held by the start until the object has its label
    std::unique_ptr<std::thread> thread;
    std::atomic<pthread_t> id{0};  // 0 while there is no thread; written under `mutex`
    const unsigned long processId = impl::CachedProcessId();
};

/// What the new thread needs, since the object gets its label after the start.
struct kyThread::Start {
    kyThread* thread;
    Cell* cell;
    bool isLibraryThread;
    bool isFromLibraryThread;
    sigset_t launchMask;
    char systemName[sSystemNameBytes];
};

/// One call of `run()`. The object that it is made for may be gone at its end.
class kyThread::Call {
public:
    explicit Call(kyThread* thread) : mThread(thread), mOuter(tInnermost) { tInnermost = this; }
    ~Call()
    {
        tInnermost = mOuter;
        // Release: pairs with isRunning().
        if (mThread != nullptr)
            mThread->mIsRunning.store(false, std::memory_order_release);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    int result = 0;

    static void Perform(void* call)
    {
        auto* const self = static_cast<Call*>(call);
        self->result = self->mThread->run();
    }

    /// `thread` is destroyed: the calls of it on this thread must not touch it again.
    static void Forget(const kyThread* thread)
    {
        for (Call* call = tInnermost; call != nullptr; call = call->mOuter) {
            if (call->mThread == thread)
                call->mThread = nullptr;
        }
    }

private:
    kyThread* mThread;
    Call* const mOuter;

    static constinit thread_local Call* tInnermost;
};

constinit thread_local kyThread::Call* kyThread::Call::tInnermost = nullptr;

kyThread::kyThread() : mCell(std::make_unique<Cell>())
{
    impl::ReportEarlyCreation("Thread create before full init of kySystem");
}

kyThread::~kyThread()
{
    CheckIfProcessForkAfterThreadSafeInit();
    Call::Forget(this);
    if (!isOwnThread()) {
        waitThread(sNoTimeLimit);
        return;
    }
    // The thread that started this one may still have to leave the mutex.
    const std::lock_guard lock(mCell->mutex);
    mCell->thread->detach();
}

void kyThread::startThread(const char* label)
{
    // kept: the name is the mangled one, which needs nothing taken off its front: type_info::name()
    // leaves a leading "*" out itself, and "class " exists with other compilers only.
    const char* const text = label != nullptr ? label : typeid(*this).name();
    launch(text, text, false);
}

void kyThread::startLibraryThread(const char* systemName, const char* label)
{
    launch(systemName, label != nullptr ? label : typeid(*this).name(), true);
}

void kyThread::launch(const char* systemName, const char* label, bool isLibraryThread)
{
    forgetInheritedThread();
    // Asked without the mutex, which whoever joins holds for as long as the thread runs.
    if (!isFinished())
        return;
    const std::lock_guard lock(mCell->mutex);
    if (mCell->thread != nullptr)
        return;
    const std::lock_guard gate(mCell->gate);
    Start start = {
        this, mCell.get(), isLibraryThread, tCreationMask.isKnown, impl::LaunchSignalMask(), {}};
    std::string_view(systemName).copy(start.systemName, sSystemNameBytes - 1);

    // Room for the label before there is a thread, for nothing may fail afterwards.
    constexpr std::size_t idBytes = 32;
    mLabel.reserve(std::string_view(label).size() + idBytes);
    mIsRunning.store(true, std::memory_order_relaxed);
    try {
        // Blocked here, for no signal must find the new thread without its mask.
        std::optional<ScopedSignalBlock> block;
        if (isLibraryThread)
            block.emplace();
        mCell->thread = std::make_unique<std::thread>(&kyThread::Enter, start);
    } catch (...) {
        mIsRunning.store(false, std::memory_order_relaxed);
        throw;
    }
    mCell->id.store(mCell->thread->native_handle(), std::memory_order_relaxed);
    mLabel.assign(label).append(1, ' ').append(getThreadId());
}

void kyThread::Enter(const Start& start)
{
    // The thread that started this one has not finished with the object before.
    start.cell->gate.lock();
    start.cell->gate.unlock();
    if (start.isLibraryThread)
        tCreationMask = {true, start.launchMask};
    else if (start.isFromLibraryThread)
        ::pthread_sigmask(SIG_SETMASK, &start.launchMask, nullptr);
    if (start.systemName[0] != '\0')
        ::pthread_setname_np(::pthread_self(), start.systemName);
    const impl::ScopedSignalStack signalStack;
    Run(start.thread);
}

int kyThread::Run(kyThread* thread)
{
    Call call(thread);
    exception::impl::ExecGuardedCode(&Call::Perform, &call);
    return call.result;
}

bool kyThread::waitThread(int timeoutMs)
{
    forgetInheritedThread();
    if (isFinished() || isOwnThread())
        return false;
    if (timeoutMs == sNoTimeLimit) {
        const std::lock_guard lock(mCell->mutex);
        join();
        return true;
    }
    const unsigned long startMs = kySystemUtils::GetTimeBaseMs();
    while (isRunning() || !joinIfEnded()) {
        // kept: the nap comes after the look at the clock, so 0 takes one nap.
        if (static_cast<long>(kySystemUtils::GetTimeBaseMs() - startMs) > timeoutMs)
            return false;
        msleep(sNapMs);
    }
    return true;
}

/// False when somebody has started the thread again meanwhile.
bool kyThread::joinIfEnded()
{
    const std::lock_guard lock(mCell->mutex);
    if (isRunning())
        return false;
    join();
    return true;
}

/// Under `mutex`.
void kyThread::join()
{
    // Another waiter may have been faster, or the start that was on its way has failed.
    if (mCell->thread == nullptr)
        return;
    mCell->thread->join();
    mCell->thread.reset();
    mCell->id.store(0, std::memory_order_relaxed);
}

bool kyThread::isRunning() const
{
    // Acquire: pairs with the end of a Call.
    return !isInherited() && mIsRunning.load(std::memory_order_acquire);
}

bool kyThread::isFinished() const
{
    return isInherited() || (!isRunning() && mCell->id.load(std::memory_order_relaxed) == 0);
}

std::string kyThread::getThreadId() const
{
    const pthread_t id = isInherited() ? 0 : mCell->id.load(std::memory_order_relaxed);
    // What the standard library prints for a std::thread::id, without a stream and its locale.
    return id != 0 ? std::to_string(id) : "InvalidThread";
}

const std::string& kyThread::getLabel() const
{
    return mLabel;
}

bool kyThread::isOwnThread() const
{
    return !isInherited() && mCell->id.load(std::memory_order_relaxed) == ::pthread_self();
}

bool kyThread::isInherited() const
{
    return mCell->processId != impl::CachedProcessId();
}

/// The parent's thread can be neither joined nor detached here, for its memory may belong to a
/// thread of this process by now; and whoever held the mutex is not here to release it.
void kyThread::forgetInheritedThread()
{
    if (!isInherited())
        return;
    ::operator delete(mCell->thread.release());
    mCell = std::make_unique<Cell>();
    mIsRunning.store(false, std::memory_order_relaxed);
}

const std::string& kyThread::CurrentThreadId()
{
    return impl::CurrentThreadIdText();
}

// kept: the products wrap in 32 bits.
void kyThread::msleep(unsigned long milliseconds)
{
    usleep(static_cast<std::uint32_t>(milliseconds * 1000));
}

void kyThread::sleep(unsigned long seconds)
{
    usleep(static_cast<std::uint32_t>(seconds * 1000000));
}

void kyThread::usleep(unsigned long microseconds)
{
    const auto cut = static_cast<std::uint32_t>(microseconds);
    timespec end;
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += cut / 1000000;
    end.tv_nsec += static_cast<long>(cut % 1000000) * 1000;
    if (end.tv_nsec >= sNanosecondsPerSecond) {
        end.tv_nsec -= sNanosecondsPerSecond;
        ++end.tv_sec;
    }
    // Not usleep(3), which a signal ends early.
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

}  // namespace ky

#pragma once

#include "ky/kyExport.h"

#include <atomic>
#include <memory>
#include <string>

namespace ky {

/// Something that runs until it is asked to stop. The library does not use it itself.
class KY_API kyRunnableInterface {
public:
    kyRunnableInterface() = default;
    virtual ~kyRunnableInterface() = default;
    kyRunnableInterface(const kyRunnableInterface&) = delete;
    kyRunnableInterface& operator=(const kyRunnableInterface&) = delete;

    /// Returns when the work is done or soon after `stop`, which any thread may call.
    virtual int run() = 0;
    virtual void stop() = 0;
};

/// A thread whose work is the `run()` of a subclass.
///
/// An exception or a crash in `run()` is reported and ends that call alone, as
/// `exception::impl::ExecGuardedCode` tells. Any member may be called from any thread; the object
/// must outlive every call on it, but `run()` may delete it.
///
/// A subclass ends its `run()` and calls `waitThread` in its own destructor, before its members go,
/// and only the most derived class may start the thread in its constructor: until the one and
/// after the other, `run()` is the pure one of this class.
///
/// In a forked child the thread does not exist: an inherited object is not running and finished,
/// and may be started and destroyed.
class KY_API kyThread {
public:
    /// Before full initialisation it logs one CRITICAL line, where there is a log already; the
    /// thread works anyway.
    kyThread();

    /// Waits without limit for the thread to end, or leaves it alone when it is the calling one.
    /// Logs the fork warning in a forked child (`CheckIfProcessForkAfterThreadSafeInit`).
    virtual ~kyThread();
    kyThread(const kyThread&) = delete;
    kyThread& operator=(const kyThread&) = delete;

    /// Starts the thread; does nothing when it was started and not yet joined. The thread's name
    /// in the system is that of the first 15 bytes of `label`, an empty one being ignored; null
    /// stands for the mangled name of the object's class. Throws `std::system_error`, with nothing
    /// changed, when the system refuses a thread.
    void startThread(const char* label);

    /// Joins the thread. The largest `int` waits without limit, other times in naps of 15 ms, one
    /// at least when the thread is running and the time is not negative. True when it is joined.
    /// False when it is still running after that time, and at once when it was never started,
    /// is joined already, or is the calling thread.
    bool waitThread(int timeoutMs);

    /// True from the start until `run()` has returned or was left otherwise. Who sees it false
    /// sees what `run()` has written.
    bool isRunning() const;

    /// True when there is nothing to join: never started, or joined. So between the end of `run()`
    /// and `waitThread` a thread is neither running nor finished.
    bool isFinished() const;

    /// The decimal number that the standard library shows for the thread's id, "InvalidThread"
    /// when there is nothing to join. Not the kernel's number, see `CurrentThreadId`.
    std::string getThreadId() const;

    /// The label of the last start, a blank and `getThreadId()`; empty before. Borrowed, until the
    /// next start.
    const std::string& getLabel() const;

    /// Calls `run()` of `thread` on the calling thread, under the guard, and returns its result, 0
    /// when it was left otherwise than by returning.
    static int Run(kyThread* thread);

    /// The calling thread's kernel id (gettid(2)) in decimal. The text is borrowed and readable as
    /// long as the thread, in static destructors too.
    static const std::string& CurrentThreadId();

    /// Sleep at least that long, signals or not. The time is taken in microseconds modulo 2^32, so
    /// one of 71 minutes and more is cut short.
    static void msleep(unsigned long milliseconds);
    static void sleep(unsigned long seconds);
    static void usleep(unsigned long microseconds);

protected:
    /// The work. Its result reaches nobody but the caller of `Run`.
    virtual int run() = 0;

    /// `startThread` for the library's own threads: asynchronous signals are blocked, and the name
    /// in the system is `systemName`, whatever the label. What such a thread starts gets the signal
    /// mask under which this was called, by `impl::LaunchSignalMask`.
    void startLibraryThread(const char* systemName, const char* label = nullptr);

    /// Whether fork(2) brought the object, as it was last started, into this process.
    bool isInherited() const;

    /// Whether the caller runs on this thread.
    bool isOwnThread() const;

private:
    struct Cell;
    struct Start;
    class Call;

    void launch(const char* systemName, const char* label, bool isLibraryThread);
    bool joinIfEnded();
    void join();
    void forgetInheritedThread();
    static void Enter(const Start& start);

    std::unique_ptr<Cell> mCell;
    std::string mLabel;
    std::atomic<bool> mIsRunning{false};
};

}  // namespace ky

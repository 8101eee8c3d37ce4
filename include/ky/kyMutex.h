#pragma once

#include "ky/kyExport.h"

#include <memory>

#include <pthread.h>
#include <time.h>

namespace ky {

namespace impl {

/// What both in-process mutexes own.
struct NativeMutex {
    NativeMutex();
    ~NativeMutex();
    NativeMutex(const NativeMutex&) = delete;
    NativeMutex& operator=(const NativeMutex&) = delete;

    /// The recursive mutex, and what it was made with.
    pthread_mutex_t mutex;
    pthread_mutexattr_t attribute;
    const unsigned long processId;  // a forked child must not destroy what others may have held
};

}  // namespace impl

/// A recursive mutex for the threads of one process.
///
/// Any thread may lock it; the thread that holds it may lock it again and must unlock it as often.
/// The mutex must outlive every call on it. In a forked child a mutex that another thread held at
/// the fork stays locked for ever; it can be destroyed there all the same.
class KY_API kyMutex {
public:
    /// Before full initialisation it logs one CRITICAL line, where there is a log already; the
    /// mutex works anyway.
    kyMutex();

    /// Logs the fork warning in a forked child (`CheckIfProcessForkAfterThreadSafeInit`).
    virtual ~kyMutex();
    kyMutex(const kyMutex&) = delete;
    kyMutex& operator=(const kyMutex&) = delete;

    /// Blocks without limit. Returns what pthread_mutex_lock(3p) gives, 0 on success.
    int lock() { return ::pthread_mutex_lock(&mNative->mutex); }

    /// Only for the thread that holds it. Returns what pthread_mutex_unlock(3p) gives.
    int unlock() { return ::pthread_mutex_unlock(&mNative->mutex); }

    /// Never blocks. False while another thread holds the mutex.
    bool tryLock() { return ::pthread_mutex_trylock(&mNative->mutex) == 0; }

    /// Borrowed, valid as long as this object.
    pthread_mutex_t* getMutexData() const { return &mNative->mutex; }

private:
    const std::unique_ptr<impl::NativeMutex> mNative;
};

/// As `kyMutex`, but its `tryLock` takes a time, its destructor logs no fork warning, and no
/// `kyWaitCondition` can use it.
class KY_API kyMutex2 {
public:
    /// Before full initialisation it logs one CRITICAL line, where there is a log already; the
    /// mutex works anyway.
    kyMutex2();
    virtual ~kyMutex2();
    kyMutex2(const kyMutex2&) = delete;
    kyMutex2& operator=(const kyMutex2&) = delete;

    /// As those of `kyMutex`.
    int lock() { return ::pthread_mutex_lock(&mNative->mutex); }
    int unlock() { return ::pthread_mutex_unlock(&mNative->mutex); }

    /// Never blocks, whatever the time. False while another thread holds the mutex.
    bool tryLock(unsigned int timeoutMs)
    {
        if (timeoutMs == 0)
            return ::pthread_mutex_trylock(&mNative->mutex) == 0;
        // kept: the time counts from 1970, not from now. That instant lies in the past, so the
        // call is one attempt.
        timespec deadline;
        deadline.tv_sec = static_cast<time_t>(timeoutMs / 1000);
        deadline.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1000000;
        return ::pthread_mutex_timedlock(&mNative->mutex, &deadline) == 0;
    }

private:
    const std::unique_ptr<impl::NativeMutex> mNative;
};

/// A mutex between processes, by flock(2) on a file in "/var/lock/". Objects of the same name
/// exclude each other, in one process too; threads that share one object do not, so they combine
/// it with a `kyMutex`. The kernel unlocks it when its holder dies.
///
/// In a forked child an inherited object holds nothing, whatever its parent holds, and its
/// destructor leaves the file in place.
class KY_API kyMutexSystem {
public:
    /// `name`, UTF-8, is the name of the file once "/" and "." have become "_"; null draws a name
    /// that no other file has. The file is created, or emptied when it exists.
    ///
    /// When the file cannot be opened, is no regular file, or its name does not exist in the local
    /// 8-bit set, one CRITICAL line, with the system-log name "kySystem", tells so, what is there
    /// is left as it is, and `lock` and `unlock` do nothing. Before full initialisation a further
    /// line tells that, where there is a log already.
    explicit kyMutexSystem(const char* name);

    /// Removes the file, under other objects that merely have it open too, and unlocks. While
    /// another object holds the lock the file stays, for that one to remove. Logs the fork warning
    /// as `kyMutex` does.
    ~kyMutexSystem();
    kyMutexSystem(const kyMutexSystem&) = delete;
    kyMutexSystem& operator=(const kyMutexSystem&) = delete;

    /// Blocks without limit, signals or not. Does nothing when this object holds the lock. A file
    /// that was removed meanwhile is made anew.
    void lock();

    /// Does nothing when this object does not hold the lock.
    void unlock();

private:
    struct Record;
    const std::unique_ptr<Record> mRecord;
};

/// Holds a `kyMutex` while it lives, at most once. For one thread.
class kyMutexLocker {
public:
    /// Borrows `mutex`, which must outlive the locker.
    explicit kyMutexLocker(kyMutex& mutex, bool lockNow = true) : mMutex(&mutex)
    {
        if (lockNow)
            lock();
    }
    ~kyMutexLocker() { unlock(); }
    kyMutexLocker(const kyMutexLocker&) = delete;
    kyMutexLocker& operator=(const kyMutexLocker&) = delete;

    /// Does nothing when this locker holds the mutex: the depth of the lock stays one.
    void lock()
    {
        if (mIsLocked)
            return;
        mMutex->lock();
        mIsLocked = true;
    }

    /// Does nothing when this locker does not hold the mutex.
    void unlock()
    {
        if (!mIsLocked)
            return;
        mMutex->unlock();
        mIsLocked = false;
    }

    /// Whether this locker holds the mutex.
    bool isLocked() const { return mIsLocked; }

private:
    kyMutex* const mMutex;
    bool mIsLocked = false;
};

}  // namespace ky

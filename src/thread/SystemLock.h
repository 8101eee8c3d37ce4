#pragma once

#include "frame/ProcessId.h"
#include "fs/ScopedHandles.h"

#include <atomic>
#include <string>

#include <sys/types.h>

namespace ky::impl {

/// The inter-process lock that `kyMutexSystem` is made of, without its reports: flock(2) on a file
/// "/var/lock/" + name that whoever ends last removes. `open` and `openUnnamed` belong to one
/// thread; then processes exclude each other, threads of one process do not.
class SystemLock {
public:
    SystemLock() = default;

    /// A lock file that is made gets this mode, whatever the umask, and this group where allowed.
    SystemLock(mode_t mode, gid_t group) : mMode(mode), mGroup(group) {}

    /// Removes the file when nobody holds the lock. A forked copy only closes.
    ~SystemLock();
    SystemLock(const SystemLock&) = delete;
    SystemLock& operator=(const SystemLock&) = delete;

    /// Returns 0 or the error, with which `lock` and `unlock` do nothing. '/' and '.' in the UTF-8
    /// name become '_'.
    int open(const std::string& name);

    /// The same under a random name that no other process has; `name` is the last name drawn.
    int openUnnamed(std::string& name);

    void lock();
    void unlock();

private:
    int keep(ScopedFd fd);
    bool reopen();
    bool isInherited() const { return mCreatorId != CachedProcessId(); }

    /// flock(2) belongs to the open file description, which a forked child shares: its lock would
    /// succeed beside the parent's, and its unlock release the parent's.
    bool sharesDescription() const
    {
        return mOpenerId.load(std::memory_order_relaxed) != CachedProcessId();
    }

    ScopedFd createFile() const;
    ScopedFd openFile() const;

    static constexpr mode_t sAsUmaskSays = ~mode_t{0};

    const mode_t mMode = sAsUmaskSays;
    const gid_t mGroup = 0;
    ScopedFile mFile;
    std::string mPath;
    const unsigned long mCreatorId = CachedProcessId();
    std::atomic<unsigned long> mOpenerId = mCreatorId;  // a forked child writes it in lock()
};

}  // namespace ky::impl

#pragma once

#include "ky/kyCancelInterface.h"
#include "ky/kyExport.h"

#include <memory>

namespace ky {

class kyCancelIfParentProcessDiedImpl;

/// Cancels when the process that started this one has gone, so that workers do not outlive their
/// master. A thread of the object's own looks every 100 ms whether the parent is still the one that
/// it was at construction (getppid(2)), whoever adopts the process then.
///
/// A parent that is stopped is not gone. The death of one that died before the construction is
/// never noticed, for then its heir is watched: a worker for which that counts is told the parent's
/// number and compares it with `kySystemUtils::GetParentProcessID()` after the construction. Nor is
/// that of a parent in another process-id namespace, which this process cannot see. A wall clock
/// that is set back puts the next look off by as much (`kyWaitCondition`).
///
/// For the full level of the library: before it, thread, mutex and condition of each object log a
/// CRITICAL line, and the object logs from its thread. In a forked child an inherited object
/// watches no more; make a new one there.
class KY_API kyCancelIfParentProcessDied : public kyCancelInterfaceReadOnly {
public:
    /// `externalCancel`, which may be null, is borrowed as long as the object lives. Throws
    /// `std::system_error` when the system refuses a thread.
    explicit kyCancelIfParentProcessDied(const kyCancelInterfaceReadOnly* externalCancel = nullptr);

    /// Ends the thread first, which takes no part of the 100 ms.
    ~kyCancelIfParentProcessDied() override;
    kyCancelIfParentProcessDied(const kyCancelIfParentProcessDied&) = delete;
    kyCancelIfParentProcessDied& operator=(const kyCancelIfParentProcessDied&) = delete;

    /// Yes for ever once the parent is seen gone, which the INFO line "Parent process died" tells
    /// just before. Until then the answer of the external source, which is asked on the caller's
    /// thread. Any thread.
    bool shouldCancel() const override;

private:
    const std::unique_ptr<kyCancelIfParentProcessDiedImpl> mWatcher;
    const kyCancelInterfaceReadOnly* const mExternalCancel;
};

}  // namespace ky

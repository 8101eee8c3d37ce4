#pragma once

#include "ky/kyExport.h"
#include "ky/kyMutex.h"
#include "ky/kyWaitCondition.h"

#include <atomic>

namespace ky {

/// A stock of resources that threads take from and give back to.
///
/// Any member may be called from any thread; the semaphore must outlive every call on it.
/// No member fails. Not copyable: waiting threads hold its address.
class KY_API kySemaphore {
public:
    /// Starts with `initial` resources. Before full initialisation the mutex and the wait
    /// condition inside each log one CRITICAL line; the semaphore works anyway.
    explicit kySemaphore(unsigned int initial);
    kySemaphore(const kySemaphore&) = delete;
    kySemaphore& operator=(const kySemaphore&) = delete;

    /// Takes `n` resources, blocking without limit until all `n` are in stock together.
    /// Not fair: a large request can be overtaken by smaller ones.
    void acquire(unsigned int n);

    /// Gives `n` resources back and wakes every waiter. The stock wraps at 2^32.
    void release(unsigned int n);

    /// Resources in stock, possibly out of date on return: for reports, not for decisions.
    unsigned int getNoResources() const;

private:
    kyMutex mMutex;
    kyWaitCondition mReleased;
    std::atomic<unsigned int> mStock;  // written under mMutex, read by anyone
};

}  // namespace ky

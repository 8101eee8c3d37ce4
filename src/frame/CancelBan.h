#pragma once

#include <pthread.h>

namespace ky::impl {

/// Keeps the calling thread from being cancelled (pthreads(7)) while it lives, for work that must
/// not be left half-way.
class CancelBan {
public:
    CancelBan() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mBefore); }
    ~CancelBan() { ::pthread_setcancelstate(mBefore, nullptr); }
    CancelBan(const CancelBan&) = delete;
    CancelBan& operator=(const CancelBan&) = delete;

private:
    int mBefore = PTHREAD_CANCEL_ENABLE;
};

}  // namespace ky::impl

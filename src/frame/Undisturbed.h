#pragma once

#include <pthread.h>
#include <cerrno>

namespace ky::impl {

/// Keeps the log's work from disturbing its caller and from being torn apart by it: `errno` is put
/// back at the end, and the thread is not cancelled meanwhile (pthreads(7)), which would end the
/// process in a destructor.
class Undisturbed {
public:
    Undisturbed() noexcept : mErrno(errno)
    {
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mCancelState);
    }
    ~Undisturbed()
    {
        ::pthread_setcancelstate(mCancelState, nullptr);
        errno = mErrno;
    }
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;

private:
    const int mErrno;
    int mCancelState = PTHREAD_CANCEL_ENABLE;
};

}  // namespace ky::impl

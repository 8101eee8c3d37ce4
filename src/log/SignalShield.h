#pragma once

#include <csignal>
#include <ctime>

namespace ky::impl {

/// Keeps a write to a pipe without reader, or beyond the limit of file sizes, from killing the
/// process: SIGPIPE and SIGXFSZ are sent to the writing thread (write(2)) and forgotten here.
class SignalShield {
public:
    explicit SignalShield(bool isNeeded) : mIsNeeded(isNeeded)
    {
        if (!mIsNeeded)
            return;
        sigset_t pending;
        ::sigemptyset(&mRaised);
        ::sigpending(&pending);
        for (const int signal : {SIGPIPE, SIGXFSZ}) {
            if (::sigismember(&pending, signal) == 0)
                ::sigaddset(&mRaised, signal);
        }
        ::pthread_sigmask(SIG_BLOCK, &mRaised, &mOldMask);
    }
    ~SignalShield()
    {
        if (!mIsNeeded)
            return;
        const std::timespec atOnce = {};
        while (::sigtimedwait(&mRaised, nullptr, &atOnce) > 0) {
        }
        ::pthread_sigmask(SIG_SETMASK, &mOldMask, nullptr);
    }
    SignalShield(const SignalShield&) = delete;
    SignalShield& operator=(const SignalShield&) = delete;

private:
    const bool mIsNeeded;
    sigset_t mRaised;
    sigset_t mOldMask;
};

}  // namespace ky::impl

#pragma once

#include "ky/kySystemUtils.h"

#include <ctime>

namespace ky::impl {

/// How long something is still waited for, on the monotonic clock: the wall clock may jump.
class Patience {
public:
    explicit Patience(unsigned long ms) : mMs(ms), mSince(kySystemUtils::GetTimeBaseMs()) {}
    bool isOver() const { return kySystemUtils::GetTimeBaseMs() - mSince >= mMs; }
    void renew() { mSince = kySystemUtils::GetTimeBaseMs(); }

private:
    const unsigned long mMs;
    unsigned long mSince;
};

/// For a wait that nobody can end by a wake-up, as that of a crash handler for a lock.
inline void Nap(long microseconds = 200)
{
    const std::timespec time{0, microseconds * 1000};
    ::nanosleep(&time, nullptr);
}

}  // namespace ky::impl

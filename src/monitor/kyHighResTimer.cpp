#include "ky/kyHighResTimer.h"

#include <sys/time.h>

namespace {

double MicroSeconds(const ::timeval& time)
{
    return static_cast<double>(time.tv_sec) * 1000000.0 + static_cast<double>(time.tv_usec);
}

}  // namespace

struct kyHighResTimer::Record {
    ::timeval start = {};
    ::timeval end = {};
    bool isStopped = true;
};

kyHighResTimer::kyHighResTimer() : mRecord(std::make_unique<Record>()) {}

kyHighResTimer::~kyHighResTimer() = default;

void kyHighResTimer::start()
{
    mRecord->isStopped = false;
    ::gettimeofday(&mRecord->start, nullptr);
}

void kyHighResTimer::stop()
{
    if (mRecord->isStopped)
        return;
    mRecord->isStopped = true;
    ::gettimeofday(&mRecord->end, nullptr);
}

bool kyHighResTimer::isRunning() const
{
    return !mRecord->isStopped;
}

void kyHighResTimer::clearTimer()
{
    *mRecord = {};
}

double kyHighResTimer::getElapsedTimeInMicroSec()
{
    if (!mRecord->isStopped)
        ::gettimeofday(&mRecord->end, nullptr);
    // Each time becomes a double before the difference is taken.
    return MicroSeconds(mRecord->end) - MicroSeconds(mRecord->start);
}

double kyHighResTimer::getElapsedTimeInMilliSec()
{
    return getElapsedTimeInMicroSec() * 0.001;
}

double kyHighResTimer::getElapsedTimeInSec()
{
    return getElapsedTimeInMicroSec() * 0.000001;
}

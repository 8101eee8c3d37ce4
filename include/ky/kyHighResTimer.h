#pragma once

#include "ky/kyExport.h"

#include <memory>

/// A stopwatch on the wall clock (gettimeofday(2)), in microseconds. A clock that is set meanwhile
/// is part of the result, which can be negative. For one thread at a time.
class KY_API kyHighResTimer {
public:
    kyHighResTimer();
    ~kyHighResTimer();
    kyHighResTimer(const kyHighResTimer&) = delete;
    kyHighResTimer& operator=(const kyHighResTimer&) = delete;

    /// Starts anew, also while it runs.
    void start();

    /// Does nothing unless it runs.
    void stop();

    /// Started and not stopped since.
    bool isRunning() const;

    /// Stopped, at 0.
    void clearTimer();

    /// From the start to the stop, or to now while it runs. 0 when it was never started.
    double getElapsedTimeInMicroSec();
    double getElapsedTimeInMilliSec();
    double getElapsedTimeInSec();

private:
    struct Record;
    const std::unique_ptr<Record> mRecord;
};

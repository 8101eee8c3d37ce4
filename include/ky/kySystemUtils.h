#pragma once

#include "ky/kyExport.h"

#include <string>

namespace ky {

/// Clocks, time text, process identity and memory of the process. Nothing here fails with an
/// exception or an error text, or keeps state; any member may be called from any thread, before
/// initialisation and in a forked child too.
class KY_API kySystemUtils {
public:
    /// Which memory figure to read.
    enum RamMetric : int {
        Resident = 0,     ///< what the process has in physical memory now
        Unavailable = 1,  ///< a figure that this platform does not provide
    };

    /// Milliseconds of the monotonic clock (CLOCK_MONOTONIC, clock_gettime(2)): its origin is
    /// arbitrary and it never goes back. 0 when the clock cannot be read. Signal-safe.
    static unsigned long GetTimeBaseMs();

    /// `GetTimeBaseMs()` in whole seconds. Signal-safe.
    static long GetTimeBaseSec();

    /// Milliseconds of the wall clock since 1970-01-01 00:00 UTC. Signal-safe.
    static long GetMSecElapsedSinceEpoch();

    /// Whole seconds of the wall clock since 1970-01-01 00:00 UTC. Signal-safe.
    static long GetSecElapsedSinceEpoch();

    /// Formats seconds since the epoch with the conversions of strftime(3), in local time or in
    /// UTC. UTF-8; month and day names are those of the process locale, and stay in its 8-bit set
    /// while the string utilities are not initialised. A result of more than 128 bytes, an empty
    /// one, one that does not convert and seconds whose year no calendar holds give an empty text.
    static std::string ConvertSecElapsedSinceEpochToString(long seconds, const char* format,
                                                           bool localTime);

    /// The current second through `ConvertSecElapsedSinceEpochToString`.
    static std::string GetCurrentTimeAsString(const char* format, bool localTime);

    /// As 2024-03-05T13:03:07+0000.
    static std::string GetCurrentDateTimeISO(bool localTime);

    /// Asks the system each time, so it is right in a forked child. Signal-safe.
    static unsigned long GetCurrentProcessID();

    /// 0 when the parent lives in another process-id namespace (getppid(2)). Signal-safe.
    static long GetParentProcessID();

    /// Bytes, a multiple of 1024 from "/proc/self/status". 0 means unknown: the file cannot be
    /// read or lacks the line, or the metric is `Unavailable`.
    static long GetUsedRamQuantityInBytes(RamMetric metric);

    /// How many threads can make progress at once, at least 1: the processors that the calling
    /// thread may run on (sched_getaffinity(2)), or fewer where the quota of a control group
    /// (cgroups(7)), rounded up, allows no more. Read anew on each call.
    static unsigned int GetIdealThreadCount();

    /// Called by the lifecycle: takes the time zone from the environment (tzset(3)), so that it is
    /// in force from the first time text on.
    static void InitializeSystemUtils();

    /// Called by the lifecycle. Does nothing on this platform.
    static void TerminateSystemUtils();
};

/// The device of the disk that holds "/", such as "/dev/sda" for a root file system on
/// "/dev/sda1". Looked up in "/sys/dev/block" on the first call and kept. Empty when the root is on
/// no block device. Any thread.
KY_API const std::string& getMainHDDDevice();

}  // namespace ky

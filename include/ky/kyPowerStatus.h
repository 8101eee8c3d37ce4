#pragma once

#include "ky/kyExport.h"

#include <cstdint>

namespace ky {

/// Where the machine has its power from.
class KY_API kyPowerStatus {
public:
    /// Nothing known.
    kyPowerStatus();

    /// Whether both members are the same.
    bool operator==(const kyPowerStatus& other) const;
    bool operator!=(const kyPowerStatus& other) const;

    std::uint32_t source;         ///< 0 battery, 1 mains, 2 unknown
    std::uint32_t chargePercent;  ///< of the battery, 101 unknown
};

/// Looks at the power status at most once per interval. This platform is not asked: the status is
/// always the unknown one, and no look finds a change. For one thread at a time.
class KY_API kyPowerStatusReader {
public:
    /// Looks for the first time. A negative interval makes every look a fresh one.
    explicit kyPowerStatusReader(long refreshMs);

    /// Looks again, unless no more than the interval has passed since the last look; `force` looks
    /// in any case. Tells whether the status changed.
    bool updatePowerStatusReader(bool force);

    /// Looks again where the interval allows it. Borrowed; changes with later looks.
    const kyPowerStatus& getPowerStatus();

private:
    const long mRefreshMs;
    long mLastRefreshMs = 0;  // on kySystemUtils::GetTimeBaseMs()
    kyPowerStatus mStatus;
};

}  // namespace ky

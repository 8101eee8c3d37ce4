#include "ky/kyPowerStatus.h"

#include "ky/kySystemUtils.h"

namespace ky {

kyPowerStatus::kyPowerStatus() : source(2), chargePercent(101) {}

bool kyPowerStatus::operator==(const kyPowerStatus& other) const
{
    return source == other.source && chargePercent == other.chargePercent;
}

bool kyPowerStatus::operator!=(const kyPowerStatus& other) const
{
    return !(*this == other);
}

kyPowerStatusReader::kyPowerStatusReader(long refreshMs) : mRefreshMs(refreshMs)
{
    updatePowerStatusReader(true);
}

bool kyPowerStatusReader::updatePowerStatusReader(bool force)
{
    const auto nowMs = static_cast<long>(kySystemUtils::GetTimeBaseMs());
    if (!force && nowMs - mLastRefreshMs <= mRefreshMs)
        return false;
    const kyPowerStatus fresh;
    const bool changed = fresh != mStatus;
    mStatus = fresh;
    mLastRefreshMs = nowMs;
    return changed;
}

const kyPowerStatus& kyPowerStatusReader::getPowerStatus()
{
    updatePowerStatusReader(false);
    return mStatus;
}

}  // namespace ky

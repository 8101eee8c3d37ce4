// Which library this is; how long something took, when it ended and what it needed, as people write
// it; and why it failed.

#include "ky/SystemError.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystem.h"
#include "ky/kySystemUtils.h"
#include "ky/kyVersion.h"

#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <cerrno>

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    std::cout << "kySystem "
              << kySystem::Version::GetDescStringMajorMinorReleaseRevision(true, true) << '\n';
    const unsigned long startMs = ky::kySystemUtils::GetTimeBaseMs();
    const std::vector<char> work(32 << 20, 'x');
    const auto tookMs = static_cast<long>(ky::kySystemUtils::GetTimeBaseMs() - startMs);

    const long bytes =
        ky::kySystemUtils::GetUsedRamQuantityInBytes(ky::kySystemUtils::RamMetric::Resident);
    std::cout << "process " << ky::kySystemUtils::GetCurrentProcessID() << " took "
              << ky::kyStringUtils::humanizeDuration(tookMs, 0, false) << " and "
              << ky::kyStringUtils::humanizeNumberGeneric(bytes, 3, 1, true, true, false)
              << "B, until " << ky::kySystemUtils::GetCurrentDateTimeISO(false) << '\n';

    const int fd = ::open("/proc/no-such-file", O_RDONLY | O_CLOEXEC);
    const ky::SystemError error = errno;
    std::cout << error.toString() << '\n';
    ky::terminateKySystem();
    return fd == -1 && bytes >= static_cast<long>(work.size()) ? 0 : 1;
}

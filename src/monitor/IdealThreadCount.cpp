#include "ky/kySystemUtils.h"

#include "fs/ScopedHandles.h"
#include "monitor/CpuQuota.h"

#include <algorithm>

#include <sched.h>
#include <cstdio>
#include <cstdlib>

namespace ky {
namespace {

std::string ReadSmallFile(const std::string& path)
{
    const impl::ScopedFile file(std::fopen(path.c_str(), "re"));
    char buffer[4096];
    return {buffer, file ? std::fread(buffer, 1, sizeof buffer, file.get()) : 0};
}

/// Quota and period in microseconds. "max", -1 and a missing file mean no limit.
unsigned int RoundedUp(const std::string& quota, const std::string& period)
{
    const long quotaUs = std::strtol(quota.c_str(), nullptr, 10);
    const long periodUs = std::strtol(period.c_str(), nullptr, 10);
    if (quotaUs <= 0 || periodUs <= 0)
        return 0;
    return static_cast<unsigned int>(quotaUs / periodUs + (quotaUs % periodUs != 0 ? 1 : 0));
}

unsigned int GroupLimit(const std::string& folder)
{
    const std::string limit = ReadSmallFile(folder + "/cpu.max");
    if (!limit.empty())
        return RoundedUp(limit, limit.substr(std::min(limit.find(' '), limit.size())));
    return RoundedUp(ReadSmallFile(folder + "/cpu.cfs_quota_us"),
                     ReadSmallFile(folder + "/cpu.cfs_period_us"));
}

unsigned int TightestLimit(const std::string& mount, std::string_view group)
{
    unsigned int tightest = 0;
    for (;;) {
        const unsigned int limit = GroupLimit(mount + std::string(group));
        if (limit != 0 && (tightest == 0 || limit < tightest))
            tightest = limit;
        if (group.empty())
            return tightest;
        // In a container the first of them may lie outside of what is mounted.
        group = group.substr(0, group.rfind('/') == std::string_view::npos ? 0 : group.rfind('/'));
    }
}

bool NamesProcessors(std::string_view controllers)
{
    return ("," + std::string(controllers) + ",").find(",cpu,") != std::string::npos;
}

}  // namespace

/// A line is "number:controllers:group"; in version 2 there are no controllers.
unsigned int impl::ProcessorsByQuota(const std::string& root, std::string_view ownGroups)
{
    unsigned int tightest = 0;
    while (!ownGroups.empty()) {
        const std::string_view line = ownGroups.substr(0, ownGroups.find('\n'));
        ownGroups.remove_prefix(std::min(line.size() + 1, ownGroups.size()));
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', std::min(first, line.size() - 1) + 1);
        if (first == std::string_view::npos || second == std::string_view::npos)
            continue;
        const std::string_view controllers = line.substr(first + 1, second - first - 1);
        const std::string_view group = line.substr(second + 1);
        unsigned int limit = 0;
        if (controllers.empty())
            limit = TightestLimit(root, group);
        else if (NamesProcessors(controllers))
            limit = TightestLimit(root + "/cpu", group);
        if (limit != 0 && (tightest == 0 || limit < tightest))
            tightest = limit;
    }
    return tightest;
}

unsigned int kySystemUtils::GetIdealThreadCount()
{
    // Larger than any machine, or the kernel refuses to fill it.
    constexpr int processors = 8192;
    cpu_set_t mask[processors / CPU_SETSIZE] = {};
    if (::sched_getaffinity(0, sizeof mask, mask) != 0)
        return 1;
    const auto allowed = static_cast<unsigned int>(CPU_COUNT_S(sizeof mask, mask));
    const unsigned int quota =
        impl::ProcessorsByQuota("/sys/fs/cgroup", ReadSmallFile("/proc/self/cgroup"));
    return std::max(1U, quota != 0 ? std::min(quota, allowed) : allowed);
}

}  // namespace ky

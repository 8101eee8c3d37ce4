#pragma once

#include <string>
#include <string_view>

namespace ky::impl {

/// The processors that control groups leave to a process, rounded up; 0 when none of them sets a
/// limit. `root` is where the groups are mounted ("/sys/fs/cgroup"), `ownGroups` what
/// "/proc/self/cgroup" says (cgroups(7)). Both versions of control groups are understood, and each
/// group up to the root counts, for the tightest limit is the one that holds.
unsigned int ProcessorsByQuota(const std::string& root, std::string_view ownGroups);

}  // namespace ky::impl

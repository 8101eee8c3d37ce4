#pragma once

#include <string>
#include <vector>

namespace ky::impl {

/// The paths at which a child tries to find a program, in order, as exec(3) does: the program
/// itself when it has a "/" in it, else one in each folder of the PATH of this process or, when
/// that is not set, of the system's default. None for the empty name. Local 8-bit set.
std::vector<std::string> ProgramCandidates(const std::string& program);

}  // namespace ky::impl

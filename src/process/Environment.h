#pragma once

#include <string>
#include <vector>

namespace ky::impl {

/// The environment of this process, as the bytes that it is.
std::vector<std::string> OwnEnvironment();

/// What a child gets where `entriesUtf8` was set, in the local 8-bit set: that, or the own
/// environment when it is empty or, with `merge`, both. A value that was set replaces an own one
/// where that stands, other ones follow in the order of the list; the last of a name counts.
/// Entries that do not convert are left out.
std::vector<std::string> ChildEnvironment(const std::vector<std::string>& entriesUtf8, bool merge);

}  // namespace ky::impl

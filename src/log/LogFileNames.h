#pragma once

#include "ky/kyLog.h"

#include <string>
#include <string_view>

namespace ky::impl {

/// The piece between stem and extension of a file that is put aside because of its size at
/// `seconds`, "_%Y-%m-%d-%H-%M-%S" in local time.
std::string SizeRotationMark(long seconds);

/// The same for a file of the day, week or month of `seconds`: "_%Y-%m-%d", "_%Y-W%U", "_%Y-%m".
/// Weeks begin on Sunday, and on 1 January. Empty without an interval.
std::string TimeRotationMark(long seconds, kyLog::TimeRotationInterval interval);

/// The first second after `seconds` whose mark of this interval is another one.
long EndOfPeriod(long seconds, kyLog::TimeRotationInterval interval);

/// Renames `path` to its stem, `mark` and its extension. Never to a name that exists: the mark
/// then gets "-1", "-2" and so on. Returns the new path, or an empty one with `errno`.
std::string PutAside(const std::string& path, const std::string& mark);

/// Renames `from` to `to` unless that exists (EEXIST).
bool RenameToNew(const std::string& from, const std::string& to);

/// Removes the files that were put aside from `path` longest ago, by the time of their last line,
/// until `keep` are left; `newest` counts as the last of all, whatever a clock that was set back
/// says. Returns what it could not do, for people, or an empty text.
std::string RemoveOldest(const std::string& path, const std::string& newest, std::size_t keep);

}  // namespace ky::impl

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

/// Makes a new file named like `path` with `mark` before its extension, for the caller alone, and
/// gives that `name`. Never takes a name that exists: the mark then gets "-1", "-2" and so on. -1
/// with `errno` where that fails.
int MakeAside(const std::string& path, const std::string& mark, std::string& name);

/// Exchanges what the two names stand for, at once where the file system can do that; otherwise the
/// path names nothing for a moment.
bool Exchange(const std::string& path, const std::string& aside);

/// Removes the files that were put aside from `path` longest ago, by the time of their last line,
/// until `keep` are left; `newest` counts as the last of all, whatever a clock that was set back
/// says. Puts into `trouble`, for people, the last that could not be removed. Returns how many
/// were.
std::size_t RemoveOldest(const std::string& path, const std::string& newest, std::size_t keep,
                         std::string& trouble);

}  // namespace ky::impl

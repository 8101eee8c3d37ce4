#pragma once

#include "ky/kyLog.h"

#include <list>

namespace ky::impl {

/// Log entries that have been written and are used again on their thread, with the memory of their
/// texts.
using Entries = std::list<kyLog::LogEntry>;

/// Puts a clean entry into the empty `entries`: one of the calling thread's own, else a new one.
void TakeEntry(Entries& entries);

/// Makes `entries` the calling thread's own, or destroys them when it has enough.
void KeepEntries(Entries& entries);

}  // namespace ky::impl

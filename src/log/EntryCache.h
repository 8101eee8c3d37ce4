#pragma once

#include "ky/kyLog.h"

#include <cstddef>
#include <list>

namespace ky::impl {

/// Log entries that have been written and are used again, with the memory of their texts. An entry
/// is made on one thread and written on another; without this the two would fight for the lock of
/// the memory allocator, which costs a producer more than all else that it does.
using Entries = std::list<kyLog::LogEntry>;

constexpr std::size_t sEntriesOfAChunk = 32;

/// Puts a clean entry into the empty `entries`: one of the calling thread's own, else a new one.
void TakeEntry(Entries& entries);

/// Makes `entries`, cleaned unless they are, the calling thread's own, or destroys them when it has
/// enough.
void KeepEntries(Entries& entries, bool areClean);

/// Whether the calling thread has none of its own and can take a chunk.
bool WantsEntries() noexcept;

/// Empties an entry and lets go of what memory is not worth keeping.
void CleanEntry(kyLog::LogEntry& entry);

}  // namespace ky::impl

#pragma once

#include "ky/kyLog.h"

#include <string>

namespace ky::impl {

class EntryQueue;

/// Marks that the calling thread is in the middle of the log's own work, for a crash handler that
/// interrupts it there.
class InsideLog {
public:
    InsideLog() noexcept { ++tDepth; }
    ~InsideLog() { --tDepth; }
    InsideLog(const InsideLog&) = delete;
    InsideLog& operator=(const InsideLog&) = delete;

    static bool IsActive() noexcept { return tDepth != 0; }

private:
    static thread_local int tDepth;
};

/// What the system log receives of an entry: name, " : ", prefix and message in UTF-8, cut to its
/// size.
std::string SystemLogText(const kyLog::LogEntry& entry);

/// In the local 8-bit set, or as it is where that fails: raw bytes say more than nothing.
std::string LocalOrRaw(const std::string& textUtf8);

/// Whether a custom handler runs on the calling thread.
bool IsHandlerRunning() noexcept;

/// `kyLog::WriteImpl` to all sinks but the custom handler.
void WriteWithoutHandler(kyLogParameters& parameters, std::list<kyLog::LogEntry>& batch);

/// Writes and removes all that `queue` holds, as `kyLog::WriteImpl` does.
void WriteQueue(kyLogParameters& parameters, EntryQueue& queue);

/// Grows with every entry written and every batch handed over, whoever did it.
unsigned long WriterProgress() noexcept;

/// For a crash handler that has interrupted `kyLog::WriteImpl` on its thread: writes the rest of
/// the batch, and hands it to the custom handler unless that has it already.
void FinishInterruptedBatch();

}  // namespace ky::impl

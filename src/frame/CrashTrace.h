#pragma once

#include <cstdint>
#include <string>

namespace ky::impl {

/// What follows the first line of a crash report: the frames of the calling thread as
/// backtrace_symbols(3) tells them, "Interrupted at 0x..." with the address of the instruction, and
/// the modules that are loaded, with which the addresses become functions and source lines later.
///
/// In each a zero byte ends a line, since a path may contain anything else.
///
/// kept: allocates and locks.
std::string CrashTraceLines(std::uintptr_t interruptedAt);

/// The same to standard error without memory, the frames only of the calling thread's own crash:
/// the stack of another thread cannot be walked.
void WriteCrashTraceToStandardError(std::uintptr_t interruptedAt, bool withFrames) noexcept;

}  // namespace ky::impl

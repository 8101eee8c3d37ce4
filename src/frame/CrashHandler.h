#pragma once

#include <signal.h>

namespace ky::impl {

/// The handler of the watched signals, for `SA_SIGINFO | SA_NODEFER`. Reports one line, the
/// stack trace and the loaded modules, then gives the signal its default action, or throws into a
/// guard of the thread. A signal from outside that lands in malloc(3) is handled a moment later.
///
/// It ends in any case. The report goes through the log, which allocates and locks; the first line
/// is put together without either, and goes straight to standard error when the log has not taken
/// it by the time that a second fault, or an alarm after 4 s, cuts the report short.
void HandleCrashSignal(int signal, siginfo_t* information, void* context);

}  // namespace ky::impl

#pragma once

#include "ky/kyExport.h"

namespace ky::exception {

/// Whether the signal watcher has its table. The full level of the library registers it, the last
/// termination releases it. Any thread. Signal-safe.
///
/// The watched signals are SIGABRT, SIGBUS, SIGFPE, SIGHUP, SIGILL, SIGINT, SIGPIPE, SIGPROF,
/// SIGPWR, SIGQUIT, SIGSEGV, SIGSYS, SIGTERM, SIGTRAP, SIGTSTP, SIGTTIN, SIGTTOU, SIGURG, SIGUSR1,
/// SIGUSR2, SIGVTALRM, SIGXCPU and SIGXFSZ.
KY_API bool IsSigWatcherRegistered();

namespace impl {

/// Calls `function`, which must not be null, and returns normally whatever it throws. An exception
/// derived from `std::exception` is logged as "Catch an exception : '", its text and "' see
/// application and system logs", any other as "Unknown exception". Thread cancellation and
/// pthread_exit(3) pass through.
///
/// While the signal watcher's handlers are installed, a SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP or
/// SIGSYS that the thread causes itself inside `function` becomes, after its report, a
/// `std::runtime_error` with the first line of the report. Not so, and the process ends: where the
/// fault lies in malloc(3) and the like, whose lock would stay locked; in a destructor while an
/// exception is on its way; where the stack cannot be unwound up to here; and on the log thread.
/// The destructors of the faulting function itself run only when it was compiled with
/// -fnon-call-exceptions.
///
/// Any thread; may be nested. The lines are CRITICAL, with the system-log name "kySystem".
KY_API void ExecGuardedCode(void (*function)(void*), void* argument);
KY_API void ExecGuardedCode(void (*function)());

/// Makes the table and takes the watched signals over: SIGPIPE is ignored, every other one is
/// reported with a stack trace and the loaded modules before it takes its default action, which
/// stays in force where the process lives on. A signal that the system refuses is logged and left
/// out. The calling thread gets an alternate signal stack, once per process and when it has none.
/// May be repeated, also after a release; what was there before the watcher is remembered all the
/// time. Called by the lifecycle, while no other thread uses the library.
KY_API void RegisterSigWatcher();

/// Frees the table. The handlers stay installed, so a crash after termination is reported too.
KY_API void ReleaseSigWatcher();

/// Gives every watched signal the action that it had before the watcher took it over, and frees
/// the table. For a host that wants its own handlers back; works after a release as well.
KY_API void UnregisterSigWatcher();

}  // namespace impl
}  // namespace ky::exception

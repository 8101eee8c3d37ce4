#pragma once

#include "ky/kyCancelInterface.h"
#include "ky/kyExport.h"

namespace ky {

/// Turns SIGINT and SIGTERM, a terminal's interrupt and a polite kill, into a request to cancel:
/// from `Create()` to `Delete()` they no longer end the process, however often they come. Unless
/// the library reaches its full level only then: its crash reports take the two signals over, until
/// `Create()` is called again.
///
/// The handler blocks no signal and restarts nothing (sigaction(2), no SA_RESTART): a blocking
/// system call of the host that it interrupts fails with EINTR, so that the host can ask. Waits of
/// this library go on.
class KY_API kyCancelConsoleEventCatcher : public kyCancelInterfaceReadOnly {
public:
    ~kyCancelConsoleEventCatcher() override;
    kyCancelConsoleEventCatcher(const kyCancelConsoleEventCatcher&) = delete;
    kyCancelConsoleEventCatcher& operator=(const kyCancelConsoleEventCatcher&) = delete;

    /// True once such a signal was caught, for the rest of the process: neither `Delete()` nor
    /// another `Create()` takes it back, and a forked child begins with its parent's answer. Any
    /// thread. Signal-safe.
    bool shouldCancel() const override;

    /// Makes the instance, unless there is one, and installs the handlers, also again, in place of
    /// whatever actions there are, those of the crash reports included. A signal whose action the
    /// system refuses to change gives one CRITICAL line and is left out.
    ///
    /// Only on the main thread: the one that initialised the library or, before, after and in a
    /// forked child, the first of the process. On another thread one CRITICAL line tells so, and
    /// nothing else happens.
    static void Create();

    /// Gives SIGINT and SIGTERM their default actions, not those that `Create()` found, destroys
    /// the instance, if any, and flushes the log. Only on the main thread, as above.
    static void Delete();

    /// Null before `Create()` and after `Delete()`, which must not overtake others who use the
    /// instance. Any thread.
    static kyCancelConsoleEventCatcher* Get();

    /// A source for the whole life of the process, which always answers no: for those who must
    /// pass one on. Any thread.
    static const kyCancelInterfaceProxyReadOnly* GetProxy();

private:
    kyCancelConsoleEventCatcher() = default;
};

}  // namespace ky

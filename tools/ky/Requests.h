#pragma once

#include "ky/kyCancelIfParentProcessDied.h"

#include <memory>
#include <string>

#include <sys/types.h>

namespace ky::tool {

/// What this process is asked while it supervises a command. One object, made on the main thread,
/// after the library is up. A signal that was ignored before stays so. The others keep their
/// handlers to the end of the process, so that a late one cannot change its exit code; the command
/// gets their default actions.
class Requests {
public:
    /// `withParent`: the end of the parent process asks to stop too.
    explicit Requests(bool withParent);

    /// Why the command is to be stopped; empty while nobody asks.
    std::string stopReason() const;

    /// Sends SIGUSR1 and SIGUSR2, where they came since the last call.
    static void PassOn(pid_t process);

private:
    std::unique_ptr<kyCancelIfParentProcessDied> mParent;
};

}  // namespace ky::tool

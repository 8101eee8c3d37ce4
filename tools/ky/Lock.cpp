#include "Commands.h"
#include "LocalText.h"
#include "StandardStreams.h"

#include "ky/kyLockFile.h"
#include "ky/kySystem.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

namespace ky::tool {
namespace {

// What shells answer for a command that is not there, and for one that cannot be started.
constexpr int sNotFound = 127;
constexpr int sNotStarted = 126;

/// Holds back, while it lives, what would end this process before the command, and tells when the
/// command has ended.
class HeldSignals {
public:
    HeldSignals()
    {
        ::sigfillset(&mHeld);
        // Faults of our own, and what stops us along with the command, or ends nobody.
        for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGTSTP,
                                 SIGTTIN, SIGTTOU, SIGCONT, SIGURG, SIGWINCH})
            ::sigdelset(&mHeld, signal);
        ::sigprocmask(SIG_BLOCK, &mHeld, &mBefore);
        // Where it is ignored, the kernel throws exit codes away (waitpid(2)). The command inherits
        // the default; what it starts would lose its exit codes otherwise.
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        ::sigaction(SIGCHLD, &action, &mChildBefore);
    }
    ~HeldSignals()
    {
        ::sigaction(SIGCHLD, &mChildBefore, nullptr);
        ::sigprocmask(SIG_SETMASK, &mBefore, nullptr);
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    const sigset_t& before() const { return mBefore; }

    /// Waits for the end of `child` and passes on what this process is told meanwhile. False, with
    /// `errno`, when its outcome is lost.
    bool waitFor(pid_t child, int& status) const
    {
        pid_t ended = 0;
        while ((ended = ::waitpid(child, &status, WNOHANG)) == 0) {
            siginfo_t info = {};
            const int signal = ::sigwaitinfo(&mHeld, &info);
            // What a terminal sends goes to the command anyway, and what we bring on ourselves
            // (SIGPIPE) is none of its business.
            if (signal != -1 && signal != SIGCHLD && info.si_code != SI_KERNEL &&
                info.si_pid != ::getpid())
                ::kill(child, signal);
        }
        return ended == child;
    }

private:
    sigset_t mHeld;
    sigset_t mBefore;
    struct sigaction mChildBefore = {};
};

/// The `errno` value of a command that cannot be started, else 0 and its process.
int Start(const std::vector<std::string>& command, const sigset_t& mask, pid_t& child)
{
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    ::posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    ::posix_spawnattr_setsigmask(&attributes, &mask);
    const int error =
        ::posix_spawnp(&child, arguments[0], nullptr, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    return error;
}

int RunCommand(const std::vector<std::string>& command, const HeldSignals& signals)
{
    pid_t child = 0;
    if (const int error = Start(command, signals.before(), child); error != 0) {
        PrintError("Cannot start " + command.front(), error);
        return error == ENOENT ? sNotFound : sNotStarted;
    }
    int status = 0;
    if (!signals.waitFor(child, status)) {
        PrintError("Cannot learn how " + command.front() + " ended", errno);
        return sFailure;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int RunLocked(const std::string& file, const std::vector<std::string>& command)
{
    const HeldSignals signals;
    kyLockFile lock;
    std::string error;
    if (!lock.takeLockUtf8(ToUtf8(file), nullptr, kyLockFile::Exclusive, &error)) {
        std::cerr << "ky: Cannot lock " + file + ". " + error + "\n";
        return sFailure;
    }
    const int exitCode = RunCommand(command, signals);
    if (!lock.releaseLock(true, &error))
        std::cerr << "ky: Cannot release " + file + ". " + error + "\n";
    return exitCode;
}

}  // namespace

void AddLock(CLI::App& app, const std::vector<std::string>& command, int& exitCode)
{
    auto* const lock = app.add_subcommand(
        "lock",
        "Run a command while holding a lock file, or fail at once while another process holds it.\n"
        "The exit code is that of the command, 128 more than the signal that killed it, 127 when "
        "there is no such command, 126 when it cannot be started, and 1 without the lock. The "
        "command finds SIGCHLD at its default, however ky was started, and gets the signals that "
        "ky is sent: twice when the sender means a whole group of processes.");
    const auto file = std::make_shared<std::string>();
    lock->add_option("FILE", *file,
                     "Made when missing, removed when the command has ended; its name must be one "
                     "that the local character set can express")
        ->required();
    lock->footer("The command and its arguments stand behind \"--\": ky lock FILE -- COMMAND...");
    lock->callback([file, command, &exitCode] {
        if (command.empty())
            throw CLI::RequiredError("-- COMMAND");
        initializeKySystem(InitType::Light, false);
        exitCode = RunLocked(*file, command);
        terminateKySystem();
    });
}

}  // namespace ky::tool

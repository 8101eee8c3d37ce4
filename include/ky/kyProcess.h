#pragma once

#include "ky/kyExport.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ky {

/// A program run as a child process: starting it, following it, waiting for it, stopping it. Also
/// describes this process and its parent.
///
/// Texts are UTF-8 and go to the system in the local 8-bit set. A program or folder that has no
/// unambiguous name there counts as missing; an argument that does not convert becomes "".
///
/// The child gets the signal actions that this process had before the library's signal watcher,
/// with handlers turned into default actions, the signal mask of the calling thread (on a thread of
/// the library the one under which that was created), and no descriptor of the library. Memory is
/// not copied for it and handlers of pthread_atfork(3) do not run, so a start costs the same
/// whatever the size of this process, and lasts as long as the system needs to load the program.
///
/// A finished child is collected by the members that tell its state; one that is never asked about
/// stays a zombie. Nothing here touches SIGCHLD. Where the host ignores that signal or collects
/// children itself, the end of a child is told as a crash with exit code 0, that of a missing
/// program too, and a detached start as failed although the program runs.
///
/// An object is used by one thread at a time. No member throws. Not copyable: the child has one
/// owner.
class KY_API kyProcess {
public:
    /// How far it has come.
    enum ProcessState : unsigned int { NotStarted = 0, Running = 1, Finished = 2 };

    /// Absolute nice values (setpriority(2)); one that the system refuses is not set.
    enum ProcessPriority : unsigned int {
        Low = 0,      ///< 1, also for a caller above that
        Normal = 1,   ///< 0
        High = 2,     ///< -1, for the privileged
        Inherit = 3,  ///< that of the calling thread; as any other value
    };

    kyProcess();
    /// Neither waits for the child nor stops it.
    virtual ~kyProcess();
    kyProcess(const kyProcess&) = delete;
    kyProcess& operator=(const kyProcess&) = delete;

    /// Starts `program`, which is looked for in the PATH of this process unless it has a "/" in it.
    /// With `resolveProgram` it is first made absolute against the working directory, and that path
    /// is taken when anything exists there, also a folder, which then fails to start. A script
    /// without "#!" is run by /bin/sh.
    ///
    /// False when a process of this object is running, or when the system refuses one or has no
    /// memory for what is passed; else true, also when there is no such program: that is told by
    /// `hasFailedToStart`.
    ///
    /// Returns 10 ms after the call, or earlier when the child has ended by then, or later when
    /// loading took longer. A child that ends by SIGUSR1 in that time counts as a failed start, and
    /// a program that turns out later than that to be missing as one that crashed by it, exit code
    /// 10; time in which it only lacked a processor does not count for that.
    ///
    /// When the working directory cannot be entered, a WARNING is logged and the program runs in
    /// the one of this process.
    bool startProcess(const std::string& program, const std::vector<std::string>& arguments,
                      bool resolveProgram = false, ProcessPriority priority = Inherit);

    /// For the next start; a relative one is against the current folder of that moment, "" is that
    /// folder. False, and no change, while the process is running.
    bool setWorkingDirectory(const std::string& dir);
    /// As it was set.
    const std::string& getWorkingDirectoryUtf8() const;

    /// What was given to the start, without the changes of `resolveProgram`.
    const std::string& getProgramUtf8() const;
    /// Without the program.
    const std::vector<std::string>& getArgumentsUtf8() const;
    /// 0 before a start. Stays after the end, when the number may be another process's.
    std::int32_t getPid() const;

    /// Entries "NAME=value" for the next start; an empty list stands for the environment of this
    /// process. With `merge` they are added to that, replacing entries of the same name where they
    /// stand, and of several with one name the last counts; else the list is passed on as it is. An
    /// entry without "=" is passed on, one that does not convert is left out. False, and no change,
    /// while the process is running.
    bool setProcessEnvironmentUtf8(const std::vector<std::string>& env, bool merge);
    /// What was set, without what is merged; of the current process its environment, without
    /// entries that do not convert. Replaces the content of `env`.
    void getProcessEnvironmentUtf8(std::vector<std::string>& env) const;

    // These ask the system first, and never wait.

    /// Finished also after a start that failed.
    ProcessState getState() const;
    /// Whether it has ended otherwise than by exiting.
    bool hasCrashed() const;
    /// True as well before any start.
    bool hasFailedToStart() const;
    /// The exit code, or the number of the signal that ended it. 0 until then.
    int exitCode() const;

    /// Waits until the process is no longer running or more than `timeoutMs` have passed; the
    /// largest value waits without limit. True when it is not running. False at once for the
    /// current process.
    bool waitForFinished(unsigned int timeoutMs);

    /// Back to not started. False, and no change, while the process is running.
    bool resetState();
    /// Forgets program, arguments and environment.
    void clearProcess();

    /// Send SIGTERM and SIGKILL, if the process is running: the number of one that has ended may be
    /// another's. Also to the current and the parent process.
    void terminateProcess();
    void killProcess();

    /// Bytes in physical memory now and the peak of the virtual size, from proc(5). Both are 0 for
    /// a child that has ended. False, with both 0, when there is no process or it was collected.
    bool getMemoryStatistics(unsigned long& resident, unsigned long& peak) const;

    /// Has no effect on this platform.
    void setWorkingSetMaxSize(unsigned long bytes);

    /// Runs a program to its end, in `workingDirectory` unless that is empty. `error`, which may be
    /// null, is emptied and then gets one of:
    ///
    ///     "Fail to start process"      -1
    ///     "timeout"                    -2, the child was killed and has ended, unless the system
    ///                                  does not let us kill it, as a program that became root
    ///     "process has crashed"        -3, its outcome is lost
    ///     "process return an error"    the exit code or the number of the signal, not 0
    ///     ""                           0, also for a missing program
    ///
    /// Time and directory are as for `waitForFinished` and `setWorkingDirectory`.
    static int ExecUtf8(const std::string& program, const std::vector<std::string>& arguments,
                        const std::string& workingDirectory, bool resolveProgram,
                        unsigned int timeoutMs, std::string* error = nullptr);

    /// Starts a program that is no child of this process. True when it runs. Does not take the 10
    /// ms of `startProcess`.
    static bool StartDetachedUtf8(const std::string& program,
                                  const std::vector<std::string>& arguments,
                                  const std::string& workingDirectory = "",
                                  bool resolveProgram = false);

    /// The same for the words of `SplitCommandLine`, in the folder of the program. A bare name is a
    /// file of the current folder: PATH is not searched.
    static bool StartDetachedUtf8(const std::string& commandLine);

    /// The first word, which must not be empty, is the program. Words are separated by blanks and
    /// tabs or stand between double quotes, and a word between quotes ends at the second one,
    /// whatever follows. There \" stands for a quote, whatever is before it; any other backslash
    /// stands for itself. False, with both outputs empty, for a line without program and, logged as
    /// CRITICAL, for a quote inside a word and a missing second quote.
    static bool SplitCommandLine(const std::string& commandLine, std::string& program,
                                 std::vector<std::string>& arguments);

    /// Make `process` describe this process, or its parent, whose end it follows. What it was
    /// before is forgotten, a child keeps running. Command lines are read up to 4096 bytes; what
    /// proc(5) does not tell stays empty. False, and no change, for a parent in another namespace,
    /// which has no number here. An object that has described the parent follows no child: one
    /// that it starts later is told as finished at once and is never collected.
    static bool GetCurrentProcess(kyProcess& process);
    static bool GetParentProcess(kyProcess& process);

    /// "Low", "Normal", "High", "Inherit", "Unknown".
    static std::string ProcessPriorityToString(ProcessPriority priority);

private:
    struct Record;

    bool start(const std::string& program, const std::vector<std::string>& arguments,
               bool resolveProgram, ProcessPriority priority, bool isDetached);
    bool sendSignal(int signal);

    std::unique_ptr<Record> mRecord;
};

}  // namespace ky

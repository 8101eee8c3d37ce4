#pragma once

#include "ky/kyExport.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ky {

class kyLogObject;
class kyLogParameters;
class kyLogThread;

/// Verbosity of the log below INFO. INFO, WARNING and CRITICAL are always written.
enum class kyLogLevel : int {
    All = 0,     ///< DEV, TRACE and DEBUG
    Debug = 1,   ///< DEV and DEBUG, no TRACE
    Normal = 2,  ///< none of the three
};

/// The process-wide log. Messages are composed with `kyLogObject`; each becomes a `LogEntry` that
/// goes to the console echo (standard output, on from the start), to a log file and to the custom
/// handler when they are installed and, when it carries a system-log name, to syslog(3).
///
/// A line is the prefix and the message:
///
///     WARNING(net) PID 4242 TID 139872 Tue Mar 05 14:03:07+0100 2024 : text
///
/// with the sub type only where there is one and the thread id only while DEBUG is enabled.
///
/// `initializeKySystem` makes the instance and `terminateKySystem` destroys it. At the light level
/// a message is written before its log object is gone, on the caller's thread and without a lock:
/// use it from one thread at a time.
///
/// At the full level any number of threads may log and configure. Entries are queued, and a thread
/// of the log ("kyLog") writes them in batches, in order per thread. A producer waits only when it
/// asks for a flush, and when more than 16 MiB of message bytes are queued; an entry costs some 40
/// bytes beside its texts, so a queue full of lines of 60 bytes takes about 28 MiB, one of lines of
/// 10 bytes three times that, and a message without text is not counted. The batch in work comes on
/// top; for a custom handler it takes 200 bytes more for each entry. What is queued when the
/// process exits is written by an exit hook as long as the writer makes progress, and what is
/// queued when it crashes before it dies.
///
/// In a child made by fork(2) the log writes on the caller's thread, under a lock; entries that the
/// parent had queued are the parent's. Nothing there waits for a thread that does not exist. So it
/// does in the process itself from the moment when a custom handler on the log's thread calls
/// exit(3) or ends that thread.
class KY_API kyLog {
public:
    /// Weight of an entry, in rising order.
    enum EntryLevel : int {
        Dev = 0,
        Trace = 1,
        Debug = 2,
        Info = 3,
        Warning = 4,
        Critical = 5,
        Suppressed = 6,  ///< nothing is written
    };

    /// One record of the log. Texts are UTF-8, but bytes that are not reach the sinks as they are.
    struct KY_API LogEntry {
        /// The text, which may have several lines.
        std::string message;
        std::string subType;        ///< category, may be empty
        std::string systemLogName;  ///< empty: does not go to the system log
        std::string prefix;         ///< what `computeLogPrefix` made
        std::string threadId;       ///< kernel thread id in decimal, empty while DEBUG is disabled
        unsigned long timeMs = 0;   ///< since the epoch, when the log object was made
        int level = Suppressed;     ///< `EntryLevel`; others print as "UNKNOWN"

        /// Makes `prefix` anew from the other fields, with the local time of `timeMs` or without.
        void computeLogPrefix(bool withTime);
    };

    /// Receives finished entries, in order, with their prefixes: one at a time while the log
    /// writes on the caller's thread, whole batches on the log's own thread. Calls never overlap.
    /// The list may be changed or emptied.
    ///
    /// A handler may log, configure the log and remove itself: what it logs while it runs reaches
    /// the other sinks at once and the handler in one further batch when it returns; what it logs
    /// during that batch does not reach the handler again. At the light level it must not throw; at
    /// the full level an exception is reported and costs the handler the rest of its batch. It must
    /// not terminate the library.
    using CustomHandler = void (*)(std::list<LogEntry>& batch, void* userData);

    /// Called by `createInstance`; `threadSafe` as by `makeThreadSafe`.
    explicit kyLog(bool threadSafe);
    ~kyLog();
    kyLog(const kyLog&) = delete;
    kyLog& operator=(const kyLog&) = delete;

    /// `Normal` from the start, and for a value outside the enumeration.
    void setLogLevel(kyLogLevel level);
    kyLogLevel getLogLevel() const;

    /// Lets DEBUG entries of the named sub types through (`enabled`) or drops them from console
    /// and file; the custom handler sees them anyway, and other levels are never dropped. Names in
    /// the text form are separated by blanks and by , ; \ | and /. White space around a name does
    /// not belong to it. An empty name, which stands for entries without sub type, counts in the
    /// vector form only. A null text names nothing.
    void setSubTypeEnabled(const char* subTypes, bool enabled);
    void setSubTypeEnabled(const std::vector<std::string>& subTypes, bool enabled);

    /// Whether lines are written to standard output.
    void setEchoToConsole(bool echo);

    /// False, and no change, when there is a handler already; null removes it and is always true.
    /// `userData` is borrowed until the handler has been removed: when the call that removes it
    /// returns, entries logged before have been handed over and no call of it is left. A handler
    /// that removes itself is not called again.
    bool installCustomHandler(CustomHandler handler, void* userData);

    /// When a log file is put aside because of the time, at local midnight. Weeks begin on Sunday.
    enum class TimeRotationInterval : int { None = 0, Daily = 1, Weekly = 2, Monthly = 3 };

    /// Bits for `installFileHandlerExUtf8`.
    enum FileOption : unsigned int {
        FileAppend = 1,  ///< go on in a file that exists; it is removed otherwise
        FileShared = 2,  ///< several processes write to it, one batch at a time; implies appending
        FileEchoToConsole = 4,
    };

    /// Writes every line to a file too. `removeFileHandler` comes first, so that the file written
    /// until then is closed and the console echo is off, even when this fails.
    ///
    /// The file is `folderUtf8` + "/" + `baseName`, an extension being part of the name; missing
    /// folders are made, an empty one is the current folder. It is put aside when the next line
    /// would make it larger than `maxFileSizeBytes`, under its name with "_%Y-%m-%d-%H-%M-%S"
    /// (strftime(3), local time) before the extension, and when a line is of a later day, week or
    /// month than the file, with "_%Y-%m-%d", "_%Y-W%U" or "_%Y-%m" of the file's lines. No file is
    /// ever overwritten: a mark that is taken gets "-1", "-2" and so on. When there are more than
    /// `maxFileCount` files, the current one included, those of the earliest last line are removed.
    /// 0 means no limit.
    ///
    /// A batch of up to 1 MiB is one write(2) in append mode. When the path names another file
    /// before a batch, renamed by logrotate(8) say, the new one is opened, or made; until that
    /// succeeds the old one stays in use. Lines that cannot be written, on a full disk say, are
    /// lost to the file alone; they are counted in a WARNING line when the file goes on, and told
    /// to standard error, at most once a minute and when the file is closed. A line torn by a kill
    /// or a full disk stays torn, and the next one begins on a line of its own.
    ///
    /// `options` are bits of `FileOption`. False with a reason in `error`, which may be null, when
    /// folder or file cannot be made or opened, the name is empty, not one name or too long for a
    /// mark, the size is below 1024 or above 2^63 - 1, or a value is unknown; then entries still
    /// reach handler and system log. A pipe needs its reader first.
    bool installFileHandlerExUtf8(const std::string& folderUtf8, const std::string& baseName,
                                  unsigned int options, unsigned int maxFileCount,
                                  unsigned long maxFileSizeBytes, TimeRotationInterval interval,
                                  std::string* error = nullptr);

    /// The same for a path, appending and without limits.
    bool installFileHandlerUtf8(const std::string& pathUtf8, std::string* error = nullptr);

    /// Closes the log file, if any, after what was logged before, and turns the console echo off.
    void removeFileHandler();

    /// The path as it was installed; empty when there is no log file.
    std::string getCurrentLogFileNameUtf8();

    /// How many lines the log file has lost since it was installed; 0 without one.
    unsigned long getLostLineCount();

    /// Returns when everything logged before has reached its sinks; at once on the log's own
    /// thread, that is in a custom handler.
    void flush();

    /// Starts the log's own thread, unless it runs. Called by the lifecycle while one thread uses
    /// the library.
    void makeThreadSafe();

    /// Takes a finished entry, whatever its level: the enable flags are tested by `kyLogObject`.
    /// The entry is moved from.
    void Write(LogEntry& entry, bool flushNow);

    /// Makes the instance and opens the system log (openlog(3), facility LOG_USER). Does nothing
    /// when there is one.
    static void createInstance(bool threadSafe);

    /// Destroys the instance, if any. Must be the last use of the log.
    static void destroyInstance();

    /// Null while there is none. Any thread.
    static kyLog* Instance() { return __atomic_load_n(&msInstance, __ATOMIC_ACQUIRE); }

    /// Whether a log object of this level writes anything. Any thread.
    static bool IsLevelEnabled(int level)
    {
        if (level < Dev || level >= Suppressed)
            return level != Suppressed;
        const kyLog* const log = Instance();
        return log == nullptr || log->mEnabled[level].load(std::memory_order_relaxed);
    }

    /// The current local time as it stands in a line, "%a %b %d %H:%M:%S%z %Y" (strftime(3)).
    static std::string GetTime();

    /// Writes a batch to the sinks that `parameters` name, on the calling thread.
    static void WriteImpl(kyLogParameters& parameters, std::list<LogEntry>& batch);

    /// Sends name, " : ", prefix and message to syslog(3), cut to 16384 bytes and in the local
    /// 8-bit set (or as they are where they do not convert): LOG_WARNING for WARNING, LOG_CRIT for
    /// CRITICAL, LOG_INFO for the others, nothing for DEBUG. The text ends at its first zero byte.
    /// With `echoToStderr` the line also goes to standard error. Blocks while the system's log
    /// daemon does not read. Any thread; takes no lock of the library.
    static void WriteToSystemLog(const LogEntry& entry, bool echoToStderr);

    /// What `Instance` gives; set by `createInstance` and `destroyInstance` alone.
    static kyLog* msInstance;

private:
    friend class kyLogObject;

    static constexpr std::size_t sLevelCount = 6;

    void writeBatch(std::list<LogEntry>& batch, bool flushNow);

    void configure(const std::function<void(kyLogParameters&)>& change);
    void writeFromCrash(std::string_view lines);
    bool writeHereFromCrash(std::list<LogEntry>& batch);

    static void ReportFromCrash(std::string_view text);
    static void FlushAtExit();
    static void RegisterProcessHooks();

    const std::unique_ptr<kyLogParameters> mParameters;
    std::unique_ptr<kyLogThread> mThread;     // set once, by makeThreadSafe
    std::atomic<bool> mEnabled[sLevelCount];  // written by setLogLevel, read by everyone
};

}  // namespace ky

// What a program logs with. Last, since it needs the class above.
#include "ky/kyLogObject.h"

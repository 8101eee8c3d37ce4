#pragma once

#include "ky/kyLog.h"

#include "fs/ScopedHandles.h"
#include "thread/SystemLock.h"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include <sys/stat.h>

namespace ky::impl {

struct LogPeriod;

/// How a log file was asked for.
struct LogFileSettings {
    bool operator==(const LogFileSettings& other) const = default;

    std::string folderUtf8;
    std::string baseName;
    std::string pathUtf8;  // of the current file; empty for none
    unsigned int options = 0;
    unsigned int maxFileCount = 0;
    unsigned long maxFileSizeBytes = 0;
    kyLog::TimeRotationInterval interval = kyLog::TimeRotationInterval::None;
};

/// The file that a log writes to: `append` gathers lines, `commit` writes them with one call. For
/// one thread at a time, but a crash handler may call both above a call that it has interrupted,
/// and a forked child goes on with what it finds.
///
/// Nothing fails and nothing throws after `Open`: lines that cannot be written are counted, told to
/// standard error at most once a minute, and in the file when it goes on.
class LogFile {
public:
    /// Null with a reason in `error`, which may be null. Makes missing folders. Does not wait for
    /// the reader of a pipe.
    static std::shared_ptr<LogFile> Open(const LogFileSettings& settings, std::string* error);

    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// `seconds` since the epoch decide into which period of a rotation by time the line falls.
    /// Long texts are borrowed until the call returns.
    void append(long seconds, std::string_view prefix, std::string_view message) noexcept;

    void commit() noexcept;

    /// Lines since the opening. Any thread.
    unsigned long lostLines() const { return mLostInAll.load(std::memory_order_relaxed); }

    /// What the file has to say about itself since the last call; empty most of the time.
    std::string takeNotice() noexcept;

private:
    struct State;

    explicit LogFile(const LogFileSettings& settings);
    [[nodiscard]] bool open(std::string* error);
    [[nodiscard]] bool openLock(int fd, std::string* error);
    void resolvePath(const std::string& localPath);
    ScopedFd openPath(int flags) const;
    void adopt(ScopedFd fd);
    [[nodiscard]] bool renewAfterFork() noexcept;

    void lookAtPath();
    void lookAtEnd(long size);

    LogPeriod periodOf(long seconds) const;
    void beginTextPeriod(long seconds);
    bool isRotationDue() const;
    [[nodiscard]] bool canRotate();
    void rotate();
    void undoRotation();
    void finishRotation();
    void keepTime() const;

    std::size_t room() const;
    void commitLocked();
    [[nodiscard]] int write(std::size_t& written);
    void makeHead();
    void settle(std::size_t written, int error) noexcept;
    void reportLoss();
    bool reportTrouble(const std::string& what, int error);

    const LogFileSettings mSettings;
    std::string mPath;  // in the local set; absolute, but for devices and pipes
    std::unique_ptr<SystemLock> mLock;
    std::unique_ptr<State> mState;
    std::atomic<unsigned long> mLostInAll{0};
};

}  // namespace ky::impl

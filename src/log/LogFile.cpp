#include "log/LogFile.h"

#include "ky/SystemError.h"
#include "ky/kySystemUtils.h"

#include "frame/LogLine.h"
#include "frame/ProcessId.h"
#include "fs/MakePath.h"
#include "log/LogFileNames.h"
#include "log/LogText.h"
#include "log/LogTime.h"
#include "log/SignalShield.h"
#include "text/LocalPath.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <limits>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace ky::impl {
namespace {

using Interval = kyLog::TimeRotationInterval;

constexpr int sOpenFlags = O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
constexpr mode_t sMode = 0666;
constexpr long sDaySeconds = 86400;
constexpr long sNever = std::numeric_limits<long>::max();
constexpr long sAlways = std::numeric_limits<long>::min() + sDaySeconds;
constexpr unsigned long sReportPeriodMs = 60000;

bool FailWith(std::string* error, const char* what, const std::string& path, int errorNumber)
{
    if (error != nullptr)
        *error =
            std::string(what) + "'" + path + "' error was : " + SystemError(errorNumber).toString();
    return false;
}

long NowSeconds()
{
    return static_cast<long>(kySystemUtils::GetMSecElapsedSinceEpoch() / 1000);
}

/// Two processes that mean the same file mean the same lock, whatever they call the file's folder.
std::string LockName(const std::string& path)
{
    const std::string::size_type base = path.rfind('/') + 1;
    struct stat folder = {};
    static_cast<void>(::stat(path.substr(0, base).c_str(), &folder));
    std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a: the same in every build
    for (const char c : path.substr(base))
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return "kyLog-" + std::to_string(folder.st_dev) + "-" + std::to_string(folder.st_ino) + "-" +
           std::to_string(hash);
}

/// Writes `head` and the pieces behind it from byte `done` on, with one call unless that is a short
/// one. Returns how many bytes are written in all; `error` is 0 when that is everything.
std::size_t WriteFrom(std::size_t done, int fd, std::string_view head,
                      const LogText::Pieces& pieces, int& error)
{
    const std::array<std::string_view, 4> texts = {head, pieces[0], pieces[1], pieces[2]};
    error = 0;
    for (;;) {
        std::array<::iovec, texts.size()> rest;
        int count = 0;
        std::size_t skipped = 0;
        for (const std::string_view text : texts) {
            const std::size_t skip = std::min(done - skipped, text.size());
            skipped += skip;
            if (skip != text.size())
                rest[static_cast<std::size_t>(count++)] = {const_cast<char*>(text.data()) + skip,
                                                           text.size() - skip};
        }
        if (count == 0)
            return done;
        const ssize_t written = RetryOnEintr([&] { return ::writev(fd, rest.data(), count); });
        if (written <= 0) {
            error = written == 0 ? EIO : errno;
            return done;
        }
        done += static_cast<std::size_t>(written);
    }
}

char LastByte(std::size_t bytes, std::string_view head, const LogText::Pieces& pieces)
{
    if (bytes <= head.size())
        return head[bytes - 1];
    bytes -= head.size();
    for (const std::string_view piece : pieces) {
        if (bytes <= piece.size())
            return piece[bytes - 1];
        bytes -= piece.size();
    }
    return '\n';
}

}  // namespace

/// What changes after the opening.
struct LogFile::State {
    const unsigned long processId = CachedProcessId();
    ScopedFd fd;
    dev_t device = 0;
    ino_t inode = 0;
    long size = 0;  // as this process knows it
    bool isRegular = true;
    bool isAtPath = false;
    bool isTorn = false;  // the last line has no end
    bool raisesSignals = false;

    // Of the file's lines: a time that they were written at, and when their period is over.
    long period = sAlways;
    long periodEnd = sNever;

    // While a file is put aside and nothing has been written yet to the one that follows it.
    ScopedFd previous;
    std::string putAside;

    // What is gathered, and the times of its first and its last line.
    LogText text;
    long firstSeconds = 0;
    long lastSeconds = 0;

    // While the text is being written, behind a head of our own.
    bool isWriting = false;
    long start = 0;
    std::string head;
    bool tellsLoss = false;

    int error = 0;  // of the last write
    unsigned long lost = 0;
    unsigned long reportedLost = 0;
    unsigned long reportedMs = 0;
    std::string notice;
};

LogFile::LogFile(const LogFileSettings& settings)
    : mSettings(settings), mState(std::make_unique_for_overwrite<State>())
{}

LogFile::~LogFile()
{
    if (mState->lost == mState->reportedLost || mState->processId != CachedProcessId())
        return;
    try {
        mState->reportedMs = 0;
        reportLoss();
    } catch (const std::bad_alloc&) {
        // Told before, if not for all of them.
    }
}

std::shared_ptr<LogFile> LogFile::Open(const LogFileSettings& settings, std::string* error)
{
    std::shared_ptr<LogFile> file(new LogFile(settings));
    return file->open(error) ? file : nullptr;
}

bool LogFile::open(std::string* error)
{
    const std::string folder = ToLocalPath(mSettings.folderUtf8);
    if (!MakePath(folder))
        return FailWith(error, "Fail to create log folder ", mSettings.folderUtf8, errno);
    const std::string localPath = ToLocalPath(mSettings.pathUtf8);
    resolvePath(localPath);
    if ((mSettings.options & kyLog::FileShared) != 0 && !openLock(error))
        return false;
    struct stat info;
    const bool startsEmpty = (mSettings.options & (kyLog::FileAppend | kyLog::FileShared)) == 0;
    if (startsEmpty && ::lstat(mPath.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        ::unlink(mPath.c_str()) != 0)
        return FailWith(error, "Fail to remove previous log file ", mSettings.pathUtf8, errno);
    ScopedFd fd = openPath(0);
    if (!fd)
        return FailWith(error, "Fail to initialize log file ", mSettings.pathUtf8, errno);
    adopt(std::move(fd));
    return true;
}

bool LogFile::openLock(std::string* error)
{
    mLock = std::make_unique<SystemLock>();
    const int errorNumber = mLock->open(LockName(mPath));
    return errorNumber == 0 ||
           FailWith(error, "Fail to install log file handler to ", mSettings.pathUtf8, errorNumber);
}

/// A link that is there from the start is meant; one that takes the file's place later is not
/// followed.
void LogFile::resolvePath(const std::string& localPath)
{
    using Freed = std::unique_ptr<char, decltype(&std::free)>;
    const std::string::size_type base = localPath.rfind('/') + 1;
    struct stat info;
    const bool isSpecial = ::stat(localPath.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
    const Freed whole(isSpecial ? nullptr : ::realpath(localPath.c_str(), nullptr), &std::free);
    const Freed folder(::realpath(localPath.substr(0, base).c_str(), nullptr), &std::free);
    if (whole)
        mPath = whole.get();
    else if (folder && !isSpecial)
        mPath = std::string(folder.get()) + "/" + localPath.substr(base);
    else
        mPath = localPath;
}

/// Opening with O_CREAT comes second: in a folder that all may write to, the kernel then refuses
/// another user's file (proc(5), fs.protected_regular).
ScopedFd LogFile::openPath(int flags) const
{
    struct stat info;
    const bool isPipe = ::stat(mPath.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
    ScopedFd fd;
    for (const int access : {O_RDWR, O_WRONLY}) {
        // A pipe without reader must fail, and fail again when the reader has gone.
        if (isPipe && access == O_RDWR)
            continue;
        fd = ScopedFd(::open(mPath.c_str(), sOpenFlags | flags | access));
        if (!fd && errno == ENOENT)
            fd = ScopedFd(::open(mPath.c_str(), sOpenFlags | flags | access | O_CREAT, sMode));
        if (fd || errno != EACCES)
            break;
    }
    return fd;
}

/// Writes to `fd` from now on, if that is one.
void LogFile::adopt(ScopedFd fd)
{
    State& state = *mState;
    struct stat info;
    if (!fd || ::fstat(fd.get(), &info) != 0)
        return;
    static_cast<void>(::fcntl(fd.get(), F_SETFL, O_APPEND));
    struct rlimit limit = {};
    static_cast<void>(::getrlimit(RLIMIT_FSIZE, &limit));
    state.fd = std::move(fd);
    state.device = info.st_dev;
    state.inode = info.st_ino;
    state.isRegular = S_ISREG(info.st_mode);
    state.isAtPath = true;
    state.isTorn = false;
    state.raisesSignals = !state.isRegular || limit.rlim_cur != RLIM_INFINITY;
    state.period = sAlways;
    state.periodEnd = sNever;
    state.size = 0;
    if (!state.isRegular)
        return;
    lookAtEnd(info.st_size);
    if (state.size != 0)
        setPeriod(info.st_mtim.tv_sec);
}

/// A line that another process or an earlier start has left without its end stays as it is, and
/// ours begins on a line of its own.
void LogFile::lookAtEnd(long size)
{
    State& state = *mState;
    if (size == state.size)
        return;
    state.size = size;
    char last = '\n';
    state.isTorn = size > 0 && ::pread(state.fd.get(), &last, 1, size - 1) == 1 && last != '\n';
}

void LogFile::setPeriod(long seconds)
{
    if (mSettings.interval == Interval::None)
        return;
    mState->period = seconds;
    mState->periodEnd = EndOfPeriod(seconds, mSettings.interval);
}

/// The parent's thread may have been in the middle of everything.
void LogFile::renewAfterFork()
{
    const int inherited = mState->fd.get();
    mParents = mState.release();
    mState = std::make_unique_for_overwrite<State>();
    struct stat opened;
    struct stat present;
    const bool isOurs = inherited >= 0 && ::fstat(inherited, &opened) == 0 &&
                        ::stat(mPath.c_str(), &present) == 0 && opened.st_dev == present.st_dev &&
                        opened.st_ino == present.st_ino;
    adopt(isOurs ? ScopedFd(inherited) : openPath(0));
}

void LogFile::append(long seconds, std::string_view prefix, std::string_view message) noexcept
{
    if (mState->processId != CachedProcessId())
        renewAfterFork();
    State& state = *mState;
    const std::size_t bytes = prefix.size() + message.size() + 1;
    const bool startsPeriod = !isInPeriod(seconds) && isInPeriod(state.firstSeconds);
    if (state.text.lines() != 0 &&
        (startsPeriod || !state.text.hasRoomFor(bytes) || state.text.bytes() + bytes > room()))
        commit();
    if (state.text.lines() == 0) {
        if (state.size == 0)
            setPeriod(seconds);
        state.firstSeconds = seconds;
    }
    state.lastSeconds = seconds;
    if (bytes <= LogText::sMaxBytes)
        return state.text.add(prefix, message);
    state.text.setLong(prefix, message);
    commit();
}

/// A line that is late by less than a day belongs to the present file; if it is more, the clock was
/// set back.
bool LogFile::isInPeriod(long seconds) const
{
    return seconds < mState->periodEnd && seconds >= mState->period - sDaySeconds;
}

/// How much text may be gathered without reaching beyond the largest size of a file.
std::size_t LogFile::room() const
{
    const unsigned long most = mSettings.maxFileSizeBytes;
    const auto size = static_cast<unsigned long>(mState->size);
    if (most == 0)
        return LogText::sMaxBytes;
    return most > size ? most - size : most;
}

void LogFile::commit() noexcept
{
    // What a fork has found gathered is the parent's.
    if (mState->text.lines() == 0 || mState->processId != CachedProcessId())
        return;
    if (mLock)
        mLock->lock();
    try {
        commitLocked();
    } catch (const std::bad_alloc&) {
        settle(0, ENOMEM);
    }
    if (mLock)
        mLock->unlock();
}

void LogFile::commitLocked()
{
    // A crash handler goes on with the write that it has interrupted.
    if (!mState->isWriting) {
        if (mState->isRegular)
            lookAtPath();
        if (isRotationDue())
            rotate();
    }
    std::size_t written = 0;
    const int error = write(written);
    settle(written, error);
    if (mState->previous && written == 0)
        undoRotation();
    else if (mState->previous)
        finishRotation();
    if (error != 0)
        reportLoss();
}

/// Whoever renames or removes the file wants a new one. What is open stays in use until a new one
/// can be opened.
void LogFile::lookAtPath()
{
    State& state = *mState;
    struct stat info;
    if (::lstat(mPath.c_str(), &info) == 0 && info.st_dev == state.device &&
        info.st_ino == state.inode) {
        state.isAtPath = true;
        return lookAtEnd(info.st_size);
    }
    ScopedFd fd = openPath(O_NOFOLLOW);
    int error = fd ? 0 : errno;
    if (fd && ::fstat(fd.get(), &info) == 0 && !S_ISREG(info.st_mode))
        error = EEXIST;
    if (error == 0)
        return adopt(std::move(fd));
    state.isAtPath = false;
    reportTrouble("Fail to initialize log file '" + mSettings.pathUtf8 + "'", error);
    if (::fstat(state.fd.get(), &info) == 0)
        lookAtEnd(info.st_size);
}

/// While nothing can be written nothing is put aside either: files that are full of lines would
/// give way to empty ones.
bool LogFile::isRotationDue() const
{
    const State& state = *mState;
    if (!state.isRegular || !state.isAtPath || state.error != 0 || state.size == 0)
        return false;
    const unsigned long sizeAfter = static_cast<unsigned long>(state.size) + state.text.bytes();
    const unsigned long most = mSettings.maxFileSizeBytes;
    return (most != 0 && sizeAfter > most) || !isInPeriod(state.firstSeconds);
}

void LogFile::rotate()
{
    State& state = *mState;
    state.putAside = PutAside(mPath, isInPeriod(state.firstSeconds)
                                         ? SizeRotationMark(state.firstSeconds)
                                         : TimeRotationMark(state.period, mSettings.interval));
    if (state.putAside.empty())
        return reportTrouble("Fail to rename log file '" + mSettings.pathUtf8 + "'", errno);
    struct stat old = {};
    static_cast<void>(::fstat(state.fd.get(), &old));
    ScopedFd fd(::open(mPath.c_str(), sOpenFlags | O_RDWR | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR));
    if (!fd) {
        const int error = errno;
        static_cast<void>(RenameToNew(state.putAside, mPath));
        return reportTrouble("Fail to initialize log file '" + mSettings.pathUtf8 + "'", error);
    }
    // Owner and mode are the operator's choice; the owner is kept where that is allowed.
    static_cast<void>(::fchown(fd.get(), old.st_uid, old.st_gid) == 0);
    static_cast<void>(::fchmod(fd.get(), old.st_mode & 07777));
    state.previous = std::move(state.fd);
    adopt(std::move(fd));
    setPeriod(state.firstSeconds);
}

/// The new file could not take a single byte.
void LogFile::undoRotation()
{
    State& state = *mState;
    static_cast<void>(::unlink(mPath.c_str()));
    static_cast<void>(RenameToNew(state.putAside, mPath));
    adopt(std::move(state.previous));
}

void LogFile::finishRotation()
{
    State& state = *mState;
    state.previous.reset();
    if (mSettings.maxFileCount != 0)
        state.notice += RemoveOldest(mPath, state.putAside, mSettings.maxFileCount - 1);
}

/// Returns 0 or the error that has stopped it after `written` bytes.
int LogFile::write(std::size_t& written)
{
    State& state = *mState;
    struct stat info;
    if (!std::exchange(state.isWriting, true)) {
        makeHead();
        state.start = state.size;
    } else if (state.isRegular && ::fstat(state.fd.get(), &info) == 0 &&
               info.st_size > state.start) {
        written = static_cast<std::size_t>(info.st_size - state.start);
    }
    const SignalShield shield(state.raisesSignals);
    int error = 0;
    written = WriteFrom(written, state.fd.get(), state.head, state.text.pieces(), error);
    return error;
}

/// What stands before the next lines: the end of a torn one, and how many are missing.
void LogFile::makeHead()
{
    State& state = *mState;
    state.head.assign(state.isTorn ? "\n" : "");
    state.tellsLoss = state.lost != 0;
    if (!state.tellsLoss)
        return;
    AppendLogPrefix(state.head, kyLog::Warning, {}, {}, LogTime(NowSeconds()));
    state.head.append("Log file '" + mSettings.pathUtf8 + "' lost " + std::to_string(state.lost) +
                      " lines\n");
}

/// Draws up what became of the text, of which `written` bytes are on file, the head included.
void LogFile::settle(std::size_t written, int error) noexcept
{
    State& state = *mState;
    const std::size_t head = state.head.size();
    if (written != 0)
        state.isTorn = LastByte(written, state.head, state.text.pieces()) != '\n';
    if (std::exchange(state.tellsLoss, false) && written >= head) {
        state.lost = 0;
        state.reportedLost = 0;
    }
    const std::size_t lost =
        state.text.lines() - state.text.linesWithin(written - std::min(written, head));
    state.lost += lost;
    mLostInAll.fetch_add(lost, std::memory_order_relaxed);
    state.size += static_cast<long>(written);
    state.error = error;
    state.text.clear();
    state.isWriting = false;
    keepTime();
}

/// Lines that were made in one period and written in the next must not make the file look like one
/// of the next, to another process or after a restart.
void LogFile::keepTime() const
{
    const State& state = *mState;
    if (mSettings.interval == Interval::None || !state.isRegular)
        return;
    const long now = NowSeconds();
    if (now < state.periodEnd && state.lastSeconds < now + sDaySeconds)
        return;
    const std::timespec times[2] = {{0, UTIME_OMIT}, {state.lastSeconds, 0}};
    static_cast<void>(::futimens(state.fd.get(), times));
}

void LogFile::reportLoss()
{
    reportTrouble("Fail to write to log file '" + mSettings.pathUtf8 + "', " +
                      std::to_string(mState->lost) + " lines are lost",
                  mState->error);
}

void LogFile::reportTrouble(const std::string& what, int error)
{
    State& state = *mState;
    const unsigned long now = kySystemUtils::GetTimeBaseMs();
    if (state.reportedMs != 0 && now - state.reportedMs < sReportPeriodMs)
        return;
    state.reportedMs = now;
    state.reportedLost = state.lost;
    std::string line;
    AppendLogPrefix(line, kyLog::Critical, {}, {}, LogTime(NowSeconds()));
    line.append(what + " error was : " + SystemError(error).toString());
    WriteLine(std::cerr, line);
}

std::string LogFile::takeNotice() noexcept
{
    return std::exchange(mState->notice, {});
}

}  // namespace ky::impl

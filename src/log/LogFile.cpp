#include "log/LogFile.h"

#include "ky/SystemError.h"
#include "ky/kySystemUtils.h"

#include "frame/LogLine.h"
#include "log/LogFileState.h"
#include "log/LogTime.h"
#include "log/SignalShield.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <iostream>
#include <new>
#include <utility>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <cerrno>

namespace ky::impl {
namespace {

constexpr unsigned long sReportPeriodMs = 60000;

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

void LogFile::append(long seconds, std::string_view prefix, std::string_view message) noexcept
{
    if (mState->processId != CachedProcessId() && !renewAfterFork()) {
        mLostInAll.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    State& state = *mState;
    const std::size_t bytes = prefix.size() + message.size() + 1;
    if (state.text.lines() != 0 &&
        (!state.textPeriod.has(seconds) || !state.text.hasRoomFor(bytes) ||
         state.text.bytes() + bytes > room()))
        commit();
    if (state.text.lines() == 0) {
        beginTextPeriod(seconds);
        state.firstSeconds = seconds;
    }
    state.lastSeconds = seconds;
    if (bytes <= LogText::sMaxBytes)
        return state.text.add(prefix, message);
    state.text.setLong(prefix, message);
    commit();
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
    const Locked locked(mLock.get());
    try {
        commitLocked();
    } catch (const std::bad_alloc&) {
        settle(0, ENOMEM);
    }
}

void LogFile::commitLocked()
{
    State& state = *mState;
    // A crash handler goes on with the write that it has interrupted.
    if (!state.isWriting) {
        if (state.isRegular)
            lookAtPath();
        makeHead();
        if (isRotationDue() && canRotate())
            rotate();
        if (state.size == 0)
            state.period = state.textPeriod;
        state.start = state.size;
    }
    std::size_t written = 0;
    const int error = write(written);
    settle(written, error);
    if (state.previous && written == 0)
        undoRotation();
    else if (state.previous)
        finishRotation();
    if (error != 0)
        reportLoss();
}

/// Returns 0 or the error that has stopped it after `written` bytes.
int LogFile::write(std::size_t& written)
{
    State& state = *mState;
    struct stat info;
    std::atomic_signal_fence(std::memory_order_release);
    if (std::exchange(state.isWriting, true) && state.isRegular &&
        ::fstat(state.fd.get(), &info) == 0 && info.st_size > state.start)
        written = static_cast<std::size_t>(info.st_size - state.start);
    struct rlimit limit = {};
    static_cast<void>(::getrlimit(RLIMIT_FSIZE, &limit));
    const SignalShield shield(!state.isRegular || limit.rlim_cur != RLIM_INFINITY);
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
    AppendLogPrefix(state.head, kyLog::Warning, {}, {},
                    LogTime(kySystemUtils::GetSecElapsedSinceEpoch()));
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
    // In this order: what a crash handler finds in between is written twice rather than never.
    state.isWriting = false;
    std::atomic_signal_fence(std::memory_order_release);
    state.text.clear();
    keepTime();
}

void LogFile::reportLoss()
{
    if (reportTrouble("Fail to write to log file '" + mSettings.pathUtf8 + "', " +
                          std::to_string(mState->lost) + " lines are lost",
                      mState->error))
        mState->reportedLost = mState->lost;
}

/// False when it is not due yet.
bool LogFile::reportTrouble(const std::string& what, int error)
{
    State& state = *mState;
    const unsigned long now = kySystemUtils::GetTimeBaseMs();
    if (state.reportedMs != 0 && now - state.reportedMs < sReportPeriodMs)
        return false;
    state.reportedMs = now;
    std::string line;
    AppendLogPrefix(line, kyLog::Critical, {}, {},
                    LogTime(kySystemUtils::GetSecElapsedSinceEpoch()));
    line.append(what + " error was : " + SystemError(error).toString());
    WriteLine(std::cerr, line);
    return true;
}

std::string LogFile::takeNotice() noexcept
{
    // What a fork has found is the parent's.
    return mState->processId == CachedProcessId() ? std::exchange(mState->notice, {})
                                                  : std::string();
}

}  // namespace ky::impl

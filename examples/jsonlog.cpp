// A custom handler that writes the log as JSON, one object a line, for collectors that read such
// files. Logs each line of standard input:
//
//   example-jsonlog FILE < lines

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <array>
#include <iostream>
#include <list>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace {

/// The length of the UTF-8 sequence at the beginning of `text`, 0 when there is none: a stray or
/// missing continuation, an overlong form, a surrogate, a value above U+10FFFF (RFC 3629).
std::size_t SequenceLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const auto isContinuation = [&](std::size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
    const unsigned int first = byte(0);
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return isContinuation(1) ? 2 : 0;
    if (!isContinuation(1) || !isContinuation(2))
        return 0;
    if (first == 0xE0)
        return byte(1) >= 0xA0 ? 3 : 0;
    if (first == 0xED)
        return byte(1) <= 0x9F ? 3 : 0;
    if (first > 0xE0 && first <= 0xEF)
        return 3;
    const bool isInRange = (first == 0xF0 && byte(1) >= 0x90) || (first > 0xF0 && first < 0xF4) ||
                           (first == 0xF4 && byte(1) <= 0x8F);
    return isInRange && isContinuation(3) ? 4 : 0;
}

/// Appends `text` as a JSON string (RFC 8259). The log passes bytes that are not UTF-8 on as they
/// are, and JSON knows nothing else: each becomes U+FFFD.
void AppendString(std::string& out, std::string_view text)
{
    out += '"';
    while (!text.empty()) {
        const std::size_t length = SequenceLength(text);
        const char first = text.front();
        if (length == 0) {
            out += "\\ufffd";
        } else if (first == '"' || first == '\\') {
            out.append(1, '\\').append(1, first);
        } else if (length == 1 && first < ' ') {
            std::array<char, 8> escape;
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(first));
            out += escape.data();
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    out += '"';
}

void AppendField(std::string& out, std::string_view name, std::string_view text)
{
    out.append(",\"").append(name).append("\":");
    AppendString(out, text);
}

const char* LevelName(int level)
{
    constexpr const char* names[] = {"dev", "trace", "debug", "info", "warning", "critical"};
    return level >= ky::kyLog::Dev && level <= ky::kyLog::Critical ? names[level] : "unknown";
}

/// UTC, as in "2026-03-05T13:03:07.042Z".
std::string TimeText(unsigned long ms)
{
    const auto seconds = static_cast<std::time_t>(ms / 1000);
    std::tm parts = {};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 40> text;
    const std::size_t size = std::strftime(text.data(), text.size(), "%FT%T", &parts);
    std::snprintf(text.data() + size, text.size() - size, ".%03luZ", ms % 1000);
    return text.data();
}

class JsonFile {
public:
    JsonFile(int fd, bool isTorn) : mFd(fd), mIsTorn(isTorn) {}

    /// The custom handler. Called by one thread at a time.
    static void Handle(std::list<ky::kyLog::LogEntry>& batch, void* self)
    {
        static_cast<JsonFile*>(self)->write(batch);
    }

private:
    void write(const std::list<ky::kyLog::LogEntry>& batch)
    {
        std::string lines;
        for (const ky::kyLog::LogEntry& entry : batch) {
            lines.append("{\"time\":\"").append(TimeText(entry.timeMs)).append("\"");
            AppendField(lines, "level", LevelName(entry.level));
            if (!entry.subType.empty())
                AppendField(lines, "subType", entry.subType);
            AppendField(lines, "message", entry.message);
            lines.append("}\n");
        }
        writeAll(lines);
    }

    /// A batch in one call of write(2), and in more where that takes only a part: a pipe, a signal,
    /// a disk that is nearly full. What a full disk does not take is lost, and the next batch
    /// begins on a line of its own.
    void writeAll(std::string_view lines)
    {
        std::string mended;
        if (mIsTorn)
            lines = mended.append(1, '\n').append(lines);
        while (!lines.empty()) {
            const ssize_t size = ::write(mFd, lines.data(), lines.size());
            if (size == -1 && errno == EINTR)
                continue;
            if (size <= 0)
                return;
            mIsTorn = lines[static_cast<std::size_t>(size) - 1] != '\n';
            lines.remove_prefix(static_cast<std::size_t>(size));
        }
    }

    const int mFd;
    bool mIsTorn;
};

/// Whether the file's last line has no end, after a kill -9 or on a disk that was full.
bool IsTorn(int fd)
{
    const off_t end = ::lseek(fd, 0, SEEK_END);
    char last = '\n';
    return end > 0 && ::pread(fd, &last, 1, end - 1) == 1 && last != '\n';
}

}  // namespace

int main(int argc, char** argv)
{
    const int fd =
        argc < 2 ? STDOUT_FILENO : ::open(argv[1], O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd == -1) {
        std::perror(argv[1]);
        return 1;
    }
    ky::initializeKySystem(ky::InitType::Full, false);
    JsonFile file(fd, IsTorn(fd));
    ky::kyLog::Instance()->setEchoToConsole(false);
    ky::kyLog::Instance()->installCustomHandler(&JsonFile::Handle, &file);
    for (std::string line; std::getline(std::cin, line);)
        ky::kyLogObject(ky::kyLog::Info, "input") << line;
    // Returns when all has been written and `file` is no longer used.
    ky::kyLog::Instance()->installCustomHandler(nullptr, nullptr);
    ky::terminateKySystem();
    return 0;
}

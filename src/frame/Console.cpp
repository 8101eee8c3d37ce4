#include "frame/LogLine.h"

#include "fs/ScopedHandles.h"

#include <ext/stdio_sync_filebuf.h>
#include <ostream>

#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

namespace ky::impl {
namespace {

// A host may have put a buffer of its own behind the stream, and that buffer may log.
constinit thread_local bool tIsWriting = false;

class WritingMark {
public:
    WritingMark() { tIsWriting = true; }
    ~WritingMark() { tIsWriting = false; }
    WritingMark(const WritingMark&) = delete;
    WritingMark& operator=(const WritingMark&) = delete;
};

/// Waits for a slow reader.
void WriteWaiting(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = RetryOnEintr([&] { return ::write(fd, text.data(), text.size()); });
        if (written == -1 && errno == EAGAIN) {
            ::pollfd descriptor = {fd, POLLOUT, 0};
            static_cast<void>(::poll(&descriptor, 1, -1));
        } else if (written <= 0) {
            return;
        } else {
            text.remove_prefix(static_cast<std::size_t>(written));
        }
    }
}

void WriteThroughStream(std::ostream& stream, std::string_view line)
{
    if (tIsWriting)
        return;
    const WritingMark mark;
    const auto exceptions = stream.exceptions();
    const auto state = stream.rdstate();
    stream.exceptions(std::ios_base::goodbit);
    stream.clear();
    try {
        stream.write(line.data(), static_cast<std::streamsize>(line.size()));
        stream.flush();
    } catch (...) {
        // Of a stream tied to this one; a log line must not throw.
    }
    stream.clear(state);
    try {
        stream.exceptions(exceptions);
    } catch (const std::ios_base::failure&) {
        // It was in a bad state before and says so.
    }
}

/// The stream as the process got it hands its text to stdio, which forgets it when a signal
/// interrupts the write or a non-blocking reader is slow, and writes it twice when the process
/// forks meanwhile. What the host left in that buffer goes first.
void Write(std::ostream& stream, std::string_view text)
{
    auto* const standard = dynamic_cast<__gnu_cxx::stdio_sync_filebuf<char>*>(stream.rdbuf());
    if (standard == nullptr)
        return WriteThroughStream(stream, text);
    std::FILE* const file = standard->file();
    static_cast<void>(std::fflush(file));
    WriteWaiting(::fileno(file), text);
}

}  // namespace

void WriteLine(std::ostream& stream, std::string& line)
{
    line.push_back('\n');
    Write(stream, line);
    line.pop_back();
}

void WriteLineInPieces(std::ostream& stream, std::string_view prefix, std::string_view message)
{
    for (const std::string_view piece : {prefix, message, std::string_view("\n")})
        Write(stream, piece);
}

}  // namespace ky::impl

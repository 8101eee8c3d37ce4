#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace ky::impl {

/// What a log line looks like and how it leaves the process, for the log and for the writer that
/// speaks while there is none.

inline constexpr char sLogTimeFormat[] = "%a %b %d %H:%M:%S%z %Y";

/// Appends level name ("DEV" to "CRITICAL" for 0 to 5, else "UNKNOWN"), "(sub type)", process id,
/// "TID " and the thread id, time and ": ". Empty texts of the first two leave their piece out;
/// only no time at all leaves the time out.
void AppendLogPrefix(std::string& out, int level, std::string_view subType,
                     std::string_view threadId, std::optional<std::string_view> timeText);

/// Prefix and message as one line, with room for the newline.
std::string LineWithRoom(std::string_view prefix, std::string_view message);

/// Writes `line` and a newline in one piece, unformatted, and flushes. Waits for a slow reader. A
/// failure is forgotten: the stream is left in the state that it had. Does nothing when the
/// stream's own buffer asks for it while it takes another line.
void WriteLine(std::ostream& stream, std::string& line);

/// The same without memory for the whole line; other writers may come between the pieces.
void WriteLineInPieces(std::ostream& stream, std::string_view prefix, std::string_view message);

/// Cuts to the 16384 bytes that a system-log message may have, back to a whole UTF-8 code point.
void CutToSystemLogSize(std::string& textUtf8);

/// Hands `localText` to syslog(3), which blocks while the daemon does not read. Up to the first
/// zero byte, as syslog(3) takes a C string. In a child that was forked while another thread was
/// inside syslog(3), whose lock then stays locked there, the message goes the same way by our own
/// means.
void SendToSystemLog(int level, const std::string& localText);

/// The same for the lines of a crash report, whose handler may have interrupted syslog(3) itself:
/// by our own means. A daemon that does not read is waited for as long as a busy one takes for a
/// burst of lines, once for all of them, and misses the rest.
class CrashSystemLog {
public:
    void send(int level, const std::string& localText);

private:
    int mMoments = 200;  // left, milliseconds
};

}  // namespace ky::impl

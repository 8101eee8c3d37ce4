#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string_view>

#include <signal.h>

namespace ky::impl {

/// Takes the texts of strsignal(3) for the watched signals, which may need memory, into static
/// storage. One thread at a time.
void RememberSignalTexts();

/// The meaning of `si_code` with a blank before it, such as " (SEGV_MAPERR)"; null for a code that
/// has no name for this signal. Signal-safe.
const char* SignalCodeText(int signal, int code) noexcept;

/// The first line of a crash report, put together in place: it allocates nothing, because the crash
/// may lie inside malloc(3), takes no lock, and may be read at any moment, by a handler or another
/// thread, as far as it has come.
class CrashLine {
public:
    /// Signal-safe. Once per object.
    void compose(int signal, const siginfo_t& info) noexcept;

    std::string_view text() const noexcept;

    /// The text and a newline to standard error, in one write. Signal-safe.
    void writeToStandardError() const noexcept;

private:
    void append(std::string_view text) noexcept;
    void appendNumber(long number) noexcept;
    void appendUsedRam() noexcept;

    std::array<char, 512> mText = {'\n'};  // the text, always followed by a newline
    std::atomic<std::size_t> mSize{0};     // without the newline
};

}  // namespace ky::impl

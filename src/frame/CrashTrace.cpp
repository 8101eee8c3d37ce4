#include "frame/CrashTrace.h"

#include "frame/LoadedModules.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <memory>
#include <string_view>

#include <execinfo.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>

namespace ky::impl {
namespace {

constexpr int sMaxFrames = 64;
// All modules are listed, since a report is often read for more than its own frames. Beyond this
// number, which bounds the report of a process with thousands, only those that a frame lies in.
constexpr int sMaxModules = 256;

struct Frames {
    std::array<void*, sMaxFrames> addresses;
    int count = 0;

    bool areIn(const LoadedModule& module) const noexcept
    {
        return std::any_of(addresses.data(), addresses.data() + count, [&](const void* address) {
            const auto number = std::bit_cast<std::uintptr_t>(address);
            return number >= module.begin && number < module.end;
        });
    }
};

/// "Interrupted at 0x...", and a newline behind it.
class InterruptedLine {
public:
    explicit InterruptedLine(std::uintptr_t address) noexcept
    {
        constexpr std::string_view start = "Interrupted at 0x";
        std::memcpy(mText.data(), start.data(), start.size());
        char* const end =
            std::to_chars(mText.data() + start.size(), mText.data() + mText.size() - 1, address, 16)
                .ptr;
        *end = '\n';
        mSize = static_cast<std::size_t>(end - mText.data());
    }
    std::string_view text() const noexcept { return {mText.data(), mSize}; }

private:
    std::array<char, 40> mText;
    std::size_t mSize;
};

template <typename Take>
void ListModules(const Frames& frames, Take take)
{
    ModuleWalk walk;
    LoadedModule module = {};
    for (int listed = 0; walk.next(module);) {
        if (listed >= sMaxModules && !frames.areIn(module))
            continue;
        ++listed;
        take(module.line);
    }
}

void WriteWithNewline(std::string_view text) noexcept
{
    [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size() + 1);
}

void WriteAfterFrames(const Frames& frames, std::uintptr_t interruptedAt) noexcept
{
    WriteWithNewline(InterruptedLine(interruptedAt).text());
    ListModules(frames, WriteWithNewline);
}

}  // namespace

std::string CrashTraceLines(std::uintptr_t interruptedAt)
{
    struct Free {
        void operator()(char** texts) const { std::free(texts); }
    };
    Frames frames;
    frames.count = ::backtrace(frames.addresses.data(), sMaxFrames);
    const std::unique_ptr<char*, Free> texts(
        ::backtrace_symbols(frames.addresses.data(), frames.count));
    std::string lines;
    const auto append = [&lines](std::string_view line) { lines.append(line).append(1, '\0'); };
    if (texts)
        std::for_each_n(texts.get(), frames.count, append);
    else
        ::backtrace_symbols_fd(frames.addresses.data(), frames.count, STDERR_FILENO);
    append(InterruptedLine(interruptedAt).text());
    ListModules(frames, append);
    return lines;
}

void WriteCrashTraceToStandardError(std::uintptr_t interruptedAt, bool withFrames) noexcept
{
    Frames frames;
    if (withFrames) {
        frames.count = ::backtrace(frames.addresses.data(), sMaxFrames);
        ::backtrace_symbols_fd(frames.addresses.data(), frames.count, STDERR_FILENO);
    }
    WriteAfterFrames(frames, interruptedAt);
}

}  // namespace ky::impl

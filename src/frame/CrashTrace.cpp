#include "frame/CrashTrace.h"

#include "frame/LoadedModules.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <memory>
#include <new>
#include <string_view>

#include <execinfo.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>

namespace ky::impl {
namespace {

// All modules are listed, since a report is often read for more than its own frames. Beyond this
// number, which bounds the report of a process with thousands, only those that a frame lies in.
constexpr int sMaxModules = 256;

/// A text with an address in hex and a newline behind.
class AddressLine {
public:
    AddressLine(std::string_view before, std::uintptr_t address, std::string_view after) noexcept
    {
        std::array<char, 16> digits;
        const char* const end =
            std::to_chars(digits.data(), digits.data() + digits.size(), address, 16).ptr;
        append(before);
        append({digits.data(), static_cast<std::size_t>(end - digits.data())});
        append(after);
        append("\n");
    }
    std::string_view text() const noexcept { return {mText.data(), mSize - 1}; }

private:
    void append(std::string_view text) noexcept
    {
        std::memcpy(mText.data() + mSize, text.data(), text.size());
        mSize += text.size();
    }

    std::array<char, 64> mText;
    std::size_t mSize = 0;
};

AddressLine InterruptedLine(std::uintptr_t address) noexcept
{
    return {"Interrupted at 0x", address, ""};
}

void WriteWithNewline(std::string_view text) noexcept
{
    [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size() + 1);
}

}  // namespace

void CrashTrace::walk() noexcept
{
    // Release: another thread may write what this one has found.
    mCount.store(::backtrace(mFrames.data(), static_cast<int>(mFrames.size())),
                 std::memory_order_release);
}

template <typename Take>
void CrashTrace::listModules(Take take) const
{
    const int count = mCount.load(std::memory_order_acquire);
    const auto hasFrame = [&](const LoadedModule& module) {
        return std::any_of(mFrames.data(), mFrames.data() + count, [&](const void* frame) {
            const auto address = std::bit_cast<std::uintptr_t>(frame);
            return address >= module.begin && address < module.end;
        });
    };
    ModuleWalk walk;
    LoadedModule module = {};
    for (int listed = 0; walk.next(module);) {
        if (listed >= sMaxModules && !hasFrame(module))
            continue;
        ++listed;
        take(module.line);
    }
}

std::string CrashTrace::lines() const
{
    struct Free {
        void operator()(char** texts) const { std::free(texts); }
    };
    const int count = mCount.load(std::memory_order_acquire);
    const std::unique_ptr<char*, Free> texts(::backtrace_symbols(mFrames.data(), count));
    if (!texts)
        throw std::bad_alloc();
    std::string lines;
    const auto append = [&lines](std::string_view line) { lines.append(line).append(1, '\0'); };
    std::for_each_n(texts.get(), count, append);
    append(InterruptedLine(mInterruptedAt).text());
    listModules(append);
    return lines;
}

void CrashTrace::writeToStandardError(Names names) const noexcept
{
    const int count = mCount.load(std::memory_order_acquire);
    if (names == Names::With)
        ::backtrace_symbols_fd(mFrames.data(), count, STDERR_FILENO);
    else
        std::for_each_n(mFrames.data(), count, [](const void* frame) {
            WriteWithNewline(AddressLine("[0x", std::bit_cast<std::uintptr_t>(frame), "]").text());
        });
    WriteWithNewline(InterruptedLine(mInterruptedAt).text());
    listModules(WriteWithNewline);
}

}  // namespace ky::impl

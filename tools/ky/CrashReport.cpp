#include "CrashReport.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace ky::tool {
namespace {

constexpr std::size_t sMostOpen = 32;
constexpr std::size_t sMostBytes = 1048576;
constexpr std::size_t sMostFrames = 256;
constexpr std::string_view sHead = "Got signal (SIG";
constexpr std::string_view sInterrupted = "Interrupted at 0x";
constexpr std::string_view sModule = "Module 0x";
constexpr std::string_view sPrefix = "CRITICAL PID ";
constexpr std::string_view sSystemLogName = "kySystem : ";

bool TakeStart(std::string_view& text, std::string_view start)
{
    if (text.substr(0, start.size()) != start)
        return false;
    text.remove_prefix(start.size());
    return true;
}

std::optional<std::uint64_t> TakeHex(std::string_view& text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

/// Takes the address off the end of "program(function+0x1d) [0x55d0c0a6e1ad]".
std::optional<std::uint64_t> TakeFrameAddress(std::string_view& text)
{
    const std::size_t bracket = text.rfind("[0x");
    if (bracket == std::string_view::npos)
        return std::nullopt;
    std::string_view rest = text.substr(bracket + 3);
    const auto address = TakeHex(rest);
    if (!address || rest != "]")
        return std::nullopt;
    text = text.substr(0, bracket);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return address;
}

/// "7f10a0000000-0x7f10a01e1000 build-id 0123abcd /usr/lib/libx.so"
std::optional<CrashModule> ParseModule(std::string_view text)
{
    const auto begin = TakeHex(text);
    if (!begin || !TakeStart(text, "-0x"))
        return std::nullopt;
    const auto end = TakeHex(text);
    if (!end || !TakeStart(text, " build-id "))
        return std::nullopt;
    const std::size_t blank = text.find(' ');
    if (blank == std::string_view::npos || *begin >= *end)
        return std::nullopt;
    return CrashModule{*begin, *end, std::string(text.substr(0, blank)),
                       std::string(text.substr(blank + 1))};
}

bool IsSame(const CrashReport& one, const CrashReport& other)
{
    return one.head == other.head &&
           std::equal(one.frames.begin(), one.frames.end(), other.frames.begin(),
                      other.frames.end(), [](const CrashFrame& a, const CrashFrame& b) {
                          return a.address == b.address && a.text == b.text;
                      });
}

/// Without the log's prefix a line of the report may stand behind another program's.
std::string_view WithoutForeignPrefix(std::string_view line)
{
    for (const std::string_view start : {sHead, sInterrupted, sModule})
        if (const std::size_t at = line.find(start); at != std::string_view::npos)
            return line.substr(at);
    const std::size_t tag = line.find("]: ");
    return tag == std::string_view::npos ? line : line.substr(tag + 3);
}

}  // namespace

CrashReportCollector::CrashReportCollector(Take take) : mTake(std::move(take)) {}

/// Takes what stands before the message off `line`.
CrashReportCollector::Source CrashReportCollector::TakeSource(std::string_view& line)
{
    const std::size_t prefix = line.find(sPrefix);
    const std::size_t colon = line.find(" : ", std::min(prefix, line.size()));
    if (colon == std::string_view::npos) {
        line = WithoutForeignPrefix(line);
        return {{}, false};
    }
    const std::size_t process = prefix + sPrefix.size();
    const Source source = {std::string(line.substr(process, line.find(' ', process) - process)),
                           line.substr(0, prefix).ends_with(sSystemLogName)};
    line.remove_prefix(colon + 3);
    return source;
}

void CrashReportCollector::add(std::string_view line)
{
    line = line.substr(0, line.find_last_not_of(" \t\r") + 1);
    const Source source = TakeSource(line);
    if (line.starts_with(sHead)) {
        begin(source).report.head = line;
        return;
    }
    Open* const open = find(source);
    if (TakeStart(line, sInterrupted)) {
        if (open != nullptr)
            open->report.interruptedAt = TakeHex(line).value_or(0);
    } else if (TakeStart(line, sModule)) {
        const auto module = ParseModule(line);
        if (open == nullptr || !module || open->bytes + line.size() > sMostBytes)
            return;
        open->bytes += line.size() + sizeof(CrashModule);
        open->report.modules.push_back(*module);
    } else if (const auto address = TakeFrameAddress(line)) {
        addFrame(source, line, *address);
    }
}

void CrashReportCollector::finish()
{
    while (!mOpen.empty())
        give(mOpen.begin());
}

CrashReportCollector::Open* CrashReportCollector::find(const Source& source)
{
    const auto open = std::find_if(mOpen.begin(), mOpen.end(),
                                   [&](const Open& each) { return each.source == source; });
    return open == mOpen.end() ? nullptr : &*open;
}

CrashReportCollector::Open& CrashReportCollector::begin(const Source& source)
{
    const auto previous = std::find_if(mOpen.begin(), mOpen.end(),
                                       [&](const Open& each) { return each.source == source; });
    if (previous != mOpen.end())
        give(previous);
    else if (mOpen.size() == sMostOpen)
        give(mOpen.begin());
    return mOpen.emplace_back(Open{source, {}, 0});
}

void CrashReportCollector::addFrame(const Source& source, std::string_view text,
                                    std::uint64_t address)
{
    Open* open = find(source);
    const bool isOver = open != nullptr && !open->report.modules.empty();
    // Anything may end in "[0x12]": only where the log's own prefix stands before it is it taken
    // for a frame of a report whose beginning is missing.
    if (open == nullptr || isOver) {
        if (source.process.empty())
            return;
        open = &begin(source);
    }
    if (open->report.frames.size() == sMostFrames || open->bytes + text.size() > sMostBytes)
        return;
    open->bytes += text.size() + sizeof(CrashFrame);
    open->report.frames.push_back({address, std::string(text)});
}

void CrashReportCollector::give(std::list<Open>::iterator open)
{
    CrashReport report = std::move(open->report);
    mOpen.erase(open);
    // The walk up a destroyed stack has failed.
    if (report.frames.empty() && report.interruptedAt != 0)
        report.frames.push_back({report.interruptedAt, "no trace"});
    if (report.frames.empty() || IsSame(report, mLast))
        return;
    mTake(report);
    mLast = std::move(report);
}

}  // namespace ky::tool

#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <vector>

namespace ky::tool {

struct CrashFrame {
    std::uint64_t address;
    std::string text;  ///< as reported, without the address
};

struct CrashModule {
    std::uint64_t begin;
    std::uint64_t end;
    std::string buildId;  ///< in hex, "none" where it has none
    std::string path;
};

/// A crash report as it was saved. What comes from a file may be anything, paths included.
struct CrashReport {
    std::string head;  ///< "Got signal (...", empty where the file begins later
    std::vector<CrashFrame> frames;
    std::uint64_t interruptedAt = 0;
    std::vector<CrashModule> modules;
};

/// Puts reports together from the lines of a log, between which other lines may stand and before
/// which somebody else's prefixes. Reports of several processes may be mixed, as long as the log's
/// own prefix tells them apart. Keeps at most 32 unfinished reports, each of at most 1 MiB.
class CrashReportCollector {
public:
    using Take = std::function<void(const CrashReport&)>;

    /// `take` receives each report with at least one frame, or with the interrupted instruction as
    /// its only one, once, as soon as it is complete, in the order of their first lines unless
    /// there are too many unfinished ones.
    explicit CrashReportCollector(Take take);

    void add(std::string_view line);

    /// After the last line.
    void finish();

private:
    struct Source {
        std::string process;   // empty without the log's prefix
        bool isFromSystemLog;  // where the same report may stand once more
        bool operator==(const Source& other) const = default;
    };
    struct Open {
        Source source;
        CrashReport report;
        std::size_t bytes = 0;
    };

    static Source TakeSource(std::string_view& line);
    Open* find(const Source& source);
    Open& begin(const Source& source);
    void addFrame(const Source& source, std::string_view text, std::uint64_t address);
    void give(std::list<Open>::iterator open);

    const Take mTake;
    std::list<Open> mOpen;
    CrashReport mLast;
};

}  // namespace ky::tool

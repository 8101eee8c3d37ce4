#include "Commands.h"
#include "CrashReport.h"
#include "ElfFile.h"
#include "StandardStreams.h"
#include "Symboliser.h"

#include "fs/ScopedHandles.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

namespace ky::tool {
namespace {

constexpr const char* sAbout =
    "A report begins with \"Got signal (\" and is followed by its trace and by the modules\n"
    "that were loaded. Other lines may stand between, and other prefixes before them, such\n"
    "as those of journalctl.\n\n"
    "Each address is looked up in the file of its module, or in the file of the same build-id\n"
    "under /usr/lib/debug/.build-id, by addr2line (package binutils) or llvm-symbolizer\n"
    "(package llvm), whichever is found in PATH. A file whose build-id is not that of the\n"
    "report is not asked: those frames stay as they were reported.\n\n"
    "Exit code: 0 when all reports have been shown; 1 when FILE cannot be read or has no\n"
    "report, when there is no symboliser, or when it fails; 2 for a wrong command line.";

/// Text from a file or a program as a terminal may see it.
std::string Printable(const std::string& text)
{
    constexpr unsigned char firstControlOfLatin1 = 0x80;
    constexpr unsigned char lastControlOfLatin1 = 0x9F;
    std::ostringstream out;
    unsigned char previous = 0;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        // A terminal obeys these two-byte characters as well.
        const bool isWideControl =
            previous == 0xC2 && byte >= firstControlOfLatin1 && byte <= lastControlOfLatin1;
        if (byte < ' ' || byte == 0x7F || isWideControl)
            out << "\\x" << std::hex << std::setw(2) << std::setfill('0') << int{byte};
        else
            out << each;
        previous = byte;
    }
    return out.str();
}

/// Shows reports, each file of a module being looked at once.
class Decoder {
public:
    explicit Decoder(const Symboliser& symboliser) : mSymboliser(symboliser) {}

    void show(const CrashReport& report);
    bool hasFailed() const { return mHasFailed; }
    int shown() const { return mShown; }

private:
    struct File {
        std::string path;  // what the symboliser is given, empty when there is none
        std::uint64_t firstAddress = 0;
        std::string reason;  // why there is none
    };
    using Module = std::pair<std::string, std::string>;  // path, build-id
    using Found = std::map<std::uint64_t, Symbols>;

    const File& file(const CrashModule& module);
    Symbols symbolsOf(const CrashReport& report, std::size_t frame, std::set<std::string>& notes);
    void lookUp(const CrashReport& report);

    const Symboliser& mSymboliser;
    std::map<Module, File> mFiles;
    std::map<std::string, Found> mFound;  // by path of the file
    std::size_t mAddresses = 0;           // in all of them
    int mShown = 0;
    bool mHasFailed = false;
};

/// The file as it was when the module was loaded, or the reason why there is none.
std::pair<std::string, std::string> Choose(const CrashModule& module, ElfFacts& facts)
{
    constexpr std::string_view deleted = " (deleted)";
    std::string path = module.path;
    if (path.size() > deleted.size() &&
        path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0)
        path.resize(path.size() - deleted.size());
    std::string error;
    const bool isHex = module.buildId.size() > 2 &&
                       module.buildId.find_first_not_of("0123456789abcdef") == std::string::npos;
    if (isHex) {
        const std::string debug = "/usr/lib/debug/.build-id/" + module.buildId.substr(0, 2) + "/" +
                                  module.buildId.substr(2) + ".debug";
        facts = ReadElfFile(debug, error);
        if (error.empty())
            return {debug, {}};
    }
    facts = ReadElfFile(path, error);
    if (!error.empty())
        return {{}, error};
    if (!isHex)
        return {{}, "no build-id in the report, so that the file may be another one"};
    if (facts.buildId != module.buildId)
        return {{},
                "the file has the build-id " + (facts.buildId.empty() ? "none" : facts.buildId) +
                    ", the report has " + module.buildId};
    return {path, {}};
}

const Decoder::File& Decoder::file(const CrashModule& module)
{
    constexpr std::size_t mostFiles = 4096;
    if (mFiles.size() > mostFiles)
        mFiles.clear();
    const auto [entry, isNew] = mFiles.try_emplace({module.path, module.buildId});
    if (isNew) {
        ElfFacts facts;
        std::tie(entry->second.path, entry->second.reason) = Choose(module, facts);
        entry->second.firstAddress = facts.firstAddress;
    }
    return entry->second;
}

const CrashModule* ModuleOf(const CrashReport& report, std::uint64_t address)
{
    for (const CrashModule& module : report.modules)
        if (address >= module.begin && address < module.end)
            return &module;
    return nullptr;
}

std::size_t InterruptedFrame(const CrashReport& report)
{
    const auto frame =
        std::find_if(report.frames.begin(), report.frames.end(),
                     [&](const CrashFrame& each) { return each.address == report.interruptedAt; });
    return static_cast<std::size_t>(frame - report.frames.begin());
}

/// Where to look: a return address is behind its call, which may be the last of its line or even
/// of its function. The interrupted instruction and, before it, the one to which the handler
/// returns have not been called from anywhere.
std::uint64_t LookUpAddress(const CrashReport& report, std::size_t frame)
{
    const std::size_t interrupted = InterruptedFrame(report);
    const bool isExact = frame == interrupted || frame + 1 == interrupted;
    const std::uint64_t address = report.frames[frame].address;
    return isExact || address == 0 ? address : address - 1;
}

void Decoder::lookUp(const CrashReport& report)
{
    constexpr std::size_t mostAddresses = 65536;
    if (mAddresses > mostAddresses) {
        mFound.clear();
        mAddresses = 0;
    }
    std::map<std::string, std::vector<std::uint64_t>> wanted;
    for (std::size_t i = 0; i < report.frames.size(); ++i) {
        const std::uint64_t address = LookUpAddress(report, i);
        const CrashModule* const module = ModuleOf(report, address);
        if (module == nullptr || file(*module).path.empty())
            continue;
        const std::uint64_t inFile = address - module->begin + file(*module).firstAddress;
        const std::string& path = file(*module).path;
        if (!mFound[path].emplace(inFile, Symbols()).second)
            continue;
        wanted[path].push_back(inFile);
        ++mAddresses;
    }
    for (const auto& [path, addresses] : wanted) {
        if (mSymboliser.look(path, addresses, mFound[path]))
            continue;
        std::cerr << "ky: The symboliser has failed for " + Printable(path) + "\n";
        mHasFailed = true;
    }
}

Symbols Decoder::symbolsOf(const CrashReport& report, std::size_t frame,
                           std::set<std::string>& notes)
{
    const std::uint64_t address = LookUpAddress(report, frame);
    const CrashModule* const module = ModuleOf(report, address);
    if (module == nullptr)
        return {};
    const File& known = file(*module);
    if (known.path.empty()) {
        notes.insert("Not looked up: " + module->path + ", " + known.reason);
        return {};
    }
    return mFound[known.path][address - module->begin + known.firstAddress];
}

void ShowFrame(std::size_t number, const CrashFrame& frame, const Symbols& symbols,
               bool isInterrupted)
{
    std::ostringstream out;
    out << "#" << std::left << std::setw(3) << number << " 0x" << std::right << std::hex
        << std::setw(16) << std::setfill('0') << frame.address;
    const std::string mark = isInterrupted ? "  <- interrupted here" : "";
    if (symbols.empty())
        out << " " << Printable(frame.text) << mark << "\n";
    for (std::size_t i = 0; i < symbols.size(); ++i) {
        out << (i == 0 ? " " : "     inlined into ") << Printable(symbols[i].function);
        if (!symbols[i].place.empty())
            out << " at " << Printable(symbols[i].place);
        out << (i == 0 ? mark : "") << "\n";
    }
    std::cout << out.str();
}

void Decoder::show(const CrashReport& report)
{
    lookUp(report);
    if (mShown++ != 0)
        std::cout << "\n";
    std::cout << (report.head.empty() ? "A report without its first line" : Printable(report.head))
              << "\n";
    std::set<std::string> notes;
    for (std::size_t i = 0; i < report.frames.size(); ++i)
        ShowFrame(i, report.frames[i], symbolsOf(report, i, notes), i == InterruptedFrame(report));
    if (report.modules.empty())
        notes.insert("Not looked up: the report has no list of modules");
    for (const std::string& note : notes)
        std::cout << Printable(note) << "\n";
}

/// Feeds the lines of a file to the collector. What a line has above 16 KiB, which no line of a
/// report has, is left out. 0 or the error of the reading.
int ReadLines(int fd, CrashReportCollector& collector)
{
    constexpr std::size_t mostLineBytes = 16384;
    std::vector<char> buffer(65536);
    std::string line;
    for (;;) {
        const ssize_t size = ::read(fd, buffer.data(), buffer.size());
        if (size == -1 && (errno == EINTR || WaitWhileBusy(fd, POLLIN)))
            continue;
        const int error = size == -1 ? errno : 0;
        for (ssize_t i = 0; i < size; ++i) {
            const char each = buffer[static_cast<std::size_t>(i)];
            if (each == '\n') {
                collector.add(line);
                line.clear();
            } else if (line.size() < mostLineBytes) {
                line += each;
            }
        }
        if (size <= 0) {
            collector.add(line);
            collector.finish();
            return error;
        }
    }
}

int RunCrash(const std::string& path)
{
    const std::string name = path == "-" ? "standard input" : path;
    const impl::ScopedFd file(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                          : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        PrintError("Cannot open " + name, errno);
        return sFailure;
    }
    const Symboliser symboliser;
    if (!symboliser.isFound()) {
        std::cerr << "ky: No symboliser in PATH. Install addr2line (package binutils) or "
                     "llvm-symbolizer (package llvm)\n";
        return sFailure;
    }
    Decoder decoder(symboliser);
    CrashReportCollector collector([&](const CrashReport& report) { decoder.show(report); });
    if (const int error = ReadLines(file.get(), collector)) {
        PrintError("Cannot read " + name, error);
        return sFailure;
    }
    if (decoder.shown() == 0)
        std::cerr << "ky: No crash report in " + name + "\n";
    return decoder.shown() == 0 || decoder.hasFailed() ? sFailure : sSuccess;
}

}  // namespace

void AddCrash(CLI::App& app, int& exitCode)
{
    auto* const command = app.add_subcommand("crash", "Show crash reports with source lines");
    command->footer(sAbout);
    const auto path = std::make_shared<std::string>("-");
    command->add_option("FILE", *path, "File to read, - or none for standard input");
    command->callback([path, &exitCode] { exitCode = RunCrash(*path); });
}

}  // namespace ky::tool

#include "Commands.h"
#include "StandardStreams.h"

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <iostream>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

namespace ky::tool {
namespace {

struct Options {
    std::vector<std::string> files;
    int level = kyLog::Info;
    std::string subType;
    std::string systemLogName;
    bool quiet = false;
    std::optional<std::string> logFile;
    bool replace = false;
    bool shared = false;
    unsigned int maxFiles = 0;
    unsigned long maxSizeBytes = 0;
    kyLog::TimeRotationInterval interval = kyLog::TimeRotationInterval::None;
};

const std::map<std::string, kyLog::TimeRotationInterval> sIntervals = {
    {"daily", kyLog::TimeRotationInterval::Daily},
    {"weekly", kyLog::TimeRotationInterval::Weekly},
    {"monthly", kyLog::TimeRotationInterval::Monthly}};

const std::map<std::string, int> sLevels = {
    {"dev", kyLog::Dev},   {"trace", kyLog::Trace},     {"debug", kyLog::Debug},
    {"info", kyLog::Info}, {"warning", kyLog::Warning}, {"critical", kyLog::Critical}};

/// Lines of any length and content, without their newlines.
class LineReader {
public:
    explicit LineReader(int fd) : mFd(fd) {}

    /// False at the end, and after an error, which `error` then gives.
    bool read(std::string& line)
    {
        line.clear();
        for (;;) {
            const std::size_t end = mBuffer.find('\n', mStart);
            line.append(mBuffer, mStart, end - mStart);
            if (end != std::string::npos) {
                mStart = end + 1;
                return true;
            }
            if (!refill())
                return mError == 0 && !line.empty();
        }
    }
    int error() const { return mError; }

private:
    bool refill()
    {
        constexpr std::size_t bufferBytes = 65536;
        mBuffer.resize(bufferBytes);
        mStart = 0;
        const ssize_t size = ReadSome(mFd, mBuffer.data(), mBuffer.size());
        mError = size == -1 ? errno : 0;
        mBuffer.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return size > 0;
    }

    const int mFd;
    std::string mBuffer;
    std::size_t mStart = 0;
    int mError = 0;
};

bool OutputFailed()
{
    const auto* const output = dynamic_cast<const CheckedOutput*>(std::cout.rdbuf());
    return output != nullptr && output->error() != 0;
}

bool IsSameFile(const struct ::stat& one, const struct ::stat& other)
{
    return (S_ISREG(one.st_mode) || S_ISFIFO(one.st_mode)) && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

/// Whether what is logged would be read again: a file that is standard output too never ends.
bool IsOutputToo(int fd)
{
    struct ::stat input = {};
    struct ::stat output = {};
    return ::fstat(fd, &input) == 0 && ::fstat(STDOUT_FILENO, &output) == 0 &&
           IsSameFile(input, output);
}

/// Before the log file is opened, which may remove what was there.
bool IsLogFileToo(const std::string& path, const std::string& logFile)
{
    struct ::stat input = {};
    struct ::stat output = {};
    const int found = path == "-" ? ::fstat(STDIN_FILENO, &input) : ::stat(path.c_str(), &input);
    return found == 0 && ::stat(logFile.c_str(), &output) == 0 && IsSameFile(input, output);
}

bool LogLines(int fd, const std::string& name, const Options& options)
{
    if (!options.quiet && IsOutputToo(fd)) {
        PrintError("Not logged, because it is standard output too: " + name, EINVAL);
        return false;
    }
    LineReader reader(fd);
    std::string line;
    try {
        while (reader.read(line)) {
            kyLogObject(options.level, options.subType.empty() ? nullptr : options.subType.c_str(),
                        options.systemLogName.empty() ? nullptr : options.systemLogName.c_str())
                << line;
            if (OutputFailed())
                return false;
        }
    } catch (const std::bad_alloc&) {
        PrintError("Cannot hold a line of " + name, ENOMEM);
        return false;
    }
    if (reader.error() != 0)
        PrintError("Cannot read " + name, reader.error());
    return reader.error() == 0;
}

bool LogFile(const std::string& path, const Options& options)
{
    if (path == "-")
        return LogLines(STDIN_FILENO, "standard input", options);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        PrintError("Cannot open " + path, errno);
        return false;
    }
    const bool good = LogLines(fd, path, options);
    ::close(fd);
    return good;
}

/// True without a log file too.
bool InstallLogFile(kyLog& log, const Options& options)
{
    if (!options.logFile)
        return true;
    const std::string& path = *options.logFile;
    for (const std::string& input : options.files) {
        if (!IsLogFileToo(input, path))
            continue;
        PrintError("Not logged, because it is the log file too: " + input, EINVAL);
        return false;
    }
    const std::size_t base = path.rfind('/') + 1;
    unsigned int flags = options.replace ? 0U : kyLog::FileAppend;
    if (options.shared)
        flags |= kyLog::FileShared;
    std::string error;
    if (log.installFileHandlerExUtf8(path.substr(0, base), path.substr(base), flags,
                                     options.maxFiles, options.maxSizeBytes, options.interval,
                                     &error))
        return true;
    std::cerr << "ky: " << error << '\n';
    return false;
}

int RunLog(const Options& options)
{
    initializeKySystem(InitType::Light, false);
    kyLog& log = *kyLog::Instance();
    if (!InstallLogFile(log, options)) {
        terminateKySystem();
        return sFailure;
    }
    if (options.level == kyLog::Dev || options.level == kyLog::Debug)
        log.setLogLevel(kyLogLevel::Debug);
    else if (options.level == kyLog::Trace)
        log.setLogLevel(kyLogLevel::All);
    log.setEchoToConsole(!options.quiet);

    bool good = true;
    for (const std::string& path : options.files)
        if (!OutputFailed())
            good = LogFile(path, options) && good;
    good = log.getLostLineCount() == 0 && good;
    terminateKySystem();
    return good ? sSuccess : sFailure;
}

/// What is said of the log file. `options` live as long as the command.
void AddFileOptions(CLI::App& command, Options& options)
{
    auto* const file =
        command.add_option("-f,--file", options.logFile, "Also append each line to this log file")
            ->type_name("PATH");
    command.add_flag("--replace", options.replace, "Begin with an empty log file")->needs(file);
    command
        .add_flag("--shared", options.shared,
                  "Share the log file with other processes that say so too")
        ->needs(file);
    command
        .add_option("--max-size", options.maxSizeBytes,
                    "Put the log file aside before it gets larger, as in 500K or 20M")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("BYTES")
        ->needs(file);
    command.add_option("--rotate", options.interval, "Put it aside daily, weekly or monthly")
        ->transform(CLI::CheckedTransformer(sIntervals, CLI::ignore_case))
        ->type_name("INTERVAL")
        ->needs(file);
    command
        .add_option("--max-files", options.maxFiles,
                    "Keep at most so many files, the current one included")
        ->type_name("COUNT")
        ->needs(file);
}

}  // namespace

void AddLog(CLI::App& app, int& exitCode)
{
    auto* const command = app.add_subcommand(
        "log", "Write each line of files or of standard input as a message of the log");
    const auto options = std::make_shared<Options>();
    command->add_option("FILES", options->files, "Files to read, - or none for standard input");
    command
        ->add_option("-l,--level", options->level,
                     "dev, trace, debug, info (the default), warning or critical")
        ->transform(CLI::CheckedTransformer(sLevels, CLI::ignore_case))
        ->type_name("LEVEL");
    command->add_option("-t,--sub-type", options->subType, "Category shown behind the level")
        ->type_name("NAME");
    command
        ->add_option("-n,--system-log", options->systemLogName,
                     "Also send each line, up to its first zero byte, to the system log under this "
                     "name")
        ->type_name("NAME");
    command->add_flag("-q,--quiet", options->quiet, "No echo to standard output");
    AddFileOptions(*command, *options);
    command->callback([options, &exitCode] {
        if (options->files.empty())
            options->files.emplace_back("-");
        exitCode = RunLog(*options);
    });
}

}  // namespace ky::tool

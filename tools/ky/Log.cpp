#include "Commands.h"
#include "StandardStreams.h"

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <iostream>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
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
};

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
        ssize_t size = 0;
        do
            size = ::read(mFd, mBuffer.data(), mBuffer.size());
        while (size == -1 && (errno == EINTR || WaitWhileBusy(mFd, POLLIN)));
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

/// Whether what is logged would be read again: a file that is standard output too never ends.
bool IsOutputToo(int fd)
{
    struct ::stat input = {};
    struct ::stat output = {};
    return ::fstat(fd, &input) == 0 && ::fstat(STDOUT_FILENO, &output) == 0 &&
           S_ISREG(input.st_mode) && input.st_dev == output.st_dev && input.st_ino == output.st_ino;
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

int RunLog(const Options& options)
{
    initializeKySystem(InitType::Light, false);
    kyLog& log = *kyLog::Instance();
    if (options.level == kyLog::Dev || options.level == kyLog::Debug)
        log.setLogLevel(kyLogLevel::Debug);
    else if (options.level == kyLog::Trace)
        log.setLogLevel(kyLogLevel::All);
    log.setEchoToConsole(!options.quiet);

    bool good = true;
    for (const std::string& path : options.files)
        if (!OutputFailed())
            good = LogFile(path, options) && good;
    terminateKySystem();
    return good ? sSuccess : sFailure;
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
    command->callback([options, &exitCode] {
        if (options->files.empty())
            options->files.emplace_back("-");
        exitCode = RunLog(*options);
    });
}

}  // namespace ky::tool

#include "Commands.h"
#include "StandardStreams.h"

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// The text of getline(3), which takes zero bytes and lines of any length.
class LineBuffer {
public:
    LineBuffer() = default;
    ~LineBuffer() { std::free(mText); }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    /// False at the end and after an error (ferror(3)). The line comes without its newline.
    bool read(std::FILE* file)
    {
        const ssize_t length = ::getline(&mText, &mCapacity, file);
        if (length < 0)
            return false;
        mLine = std::string_view(mText, static_cast<std::size_t>(length));
        if (!mLine.empty() && mLine.back() == '\n')
            mLine.remove_suffix(1);
        return true;
    }
    std::string_view line() const { return mLine; }

private:
    char* mText = nullptr;
    std::size_t mCapacity = 0;
    std::string_view mLine;
};

bool OutputFailed()
{
    const auto* const output = dynamic_cast<const CheckedOutput*>(std::cout.rdbuf());
    return output != nullptr && output->error() != 0;
}

bool LogLines(std::FILE* file, const std::string& name, const Options& options)
{
    LineBuffer buffer;
    while (buffer.read(file)) {
        kyLogObject(options.level, options.subType.empty() ? nullptr : options.subType.c_str(),
                    options.systemLogName.empty() ? nullptr : options.systemLogName.c_str())
            << buffer.line();
        if (OutputFailed())
            return false;
    }
    const int error = errno;
    if (std::ferror(file) == 0)
        return true;
    PrintError("Cannot read " + name, error);
    return false;
}

bool LogFile(const std::string& path, const Options& options)
{
    if (path == "-")
        return LogLines(stdin, "standard input", options);
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
    if (!file) {
        PrintError("Cannot open " + path, errno);
        return false;
    }
    return LogLines(file.get(), path, options);
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
                     "Also send each line to the system log under this name")
        ->type_name("NAME");
    command->add_flag("-q,--quiet", options->quiet, "No echo to standard output");
    command->callback([options, &exitCode] {
        if (options->files.empty())
            options->files.emplace_back("-");
        exitCode = RunLog(*options);
    });
}

}  // namespace ky::tool

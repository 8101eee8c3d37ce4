#include "Commands.h"
#include "LocalText.h"
#include "Quantities.h"
#include "SpelledCommand.h"
#include "StandardStreams.h"
#include "Supervisor.h"

#include "ky/kyLockFile.h"
#include "ky/kyLog.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystem.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>
#include <cerrno>

namespace ky::tool {
namespace {

struct Options {
    Supervision supervision;
    std::vector<std::string> environment;
    std::optional<std::string> lockFile;
    std::optional<std::string> logFile;
    std::string folder;
    bool withParent = false;
};

const std::map<std::string, kyProcess::ProcessPriority> sPriorities = {
    {"low", kyProcess::Low},
    {"normal", kyProcess::Normal},
    {"high", kyProcess::High},
    {"inherit", kyProcess::Inherit}};

/// Whether the local character set has such a text, so that the library passes it on as it is.
bool IsText(const std::string& local)
{
    return kyStringUtils::convertCharset(ToUtf8(local), kyStringUtils::CharSetUtf8,
                                         kyStringUtils::CharSetLocal8Bit) == local;
}

std::vector<std::string> AllToUtf8(const std::vector<std::string>& localTexts)
{
    std::vector<std::string> utf8;
    std::transform(localTexts.begin(), localTexts.end(), std::back_inserter(utf8), &ToUtf8);
    return utf8;
}

/// For people. It makes no line of its own in a log.
std::string CommandLine(const std::vector<std::string>& words)
{
    std::string line;
    for (const std::string& word : words) {
        const bool isPlain = !word.empty() && word.find_first_of(" \t\n'\"") == std::string::npos;
        line += (line.empty() ? "" : " ") + (isPlain ? word : "'" + word + "'");
    }
    std::replace_if(
        line.begin(), line.end(), [](char c) { return (c >= 0 && c < ' ') || c == 127; }, '?');
    return line;
}

void TakeCommand(const Options& options, const std::vector<std::string>& command,
                 Supervision& supervision)
{
    const auto areTexts = [](const std::vector<std::string>& all) {
        return std::all_of(all.begin(), all.end(), &IsText);
    };
    if (areTexts(command) && areTexts(options.environment) && IsText(options.folder)) {
        supervision.command = AllToUtf8(command);
        supervision.environment = AllToUtf8(options.environment);
        supervision.folder = ToUtf8(options.folder);
        supervision.title = CommandLine(supervision.command);
        return;
    }
    supervision.command = SpellCommand(command, options.environment, options.folder);
    supervision.title = kyStringUtils::UnknownEncodingToUtf8(CommandLine(command), '?');
}

/// The library goes on in the current folder where a program's own is missing; a command that was
/// to run elsewhere must not.
bool IsFolder(const std::string& folder)
{
    if (folder.empty() || ::access((folder + "/.").c_str(), X_OK) == 0)
        return true;
    PrintError("Cannot enter " + folder, errno);
    return false;
}

bool InstallLogFile(const std::optional<std::string>& path)
{
    kyLog::Instance()->setEchoToConsole(false);
    std::string error;
    if (!path || kyLog::Instance()->installFileHandlerUtf8(ToUtf8(*path), &error))
        return true;
    std::cerr << "ky: " + error + "\n";
    return false;
}

bool TakeLock(const std::string& path, kyLockFile& lock)
{
    std::string error;
    if (lock.takeLockUtf8(ToUtf8(path), nullptr, kyLockFile::Exclusive, &error))
        return true;
    const std::string text = "Cannot lock " + path + ". " + error;
    kyLogObject(kyLog::Warning, "run") << text;
    std::cerr << "ky: " + text + "\n";
    return false;
}

int RunSupervised(const Options& options, const std::vector<std::string>& command)
{
    Supervision supervision = options.supervision;
    TakeCommand(options, command, supervision);
    if (!IsFolder(options.folder) || !InstallLogFile(options.logFile))
        return sFailure;
    const Requests requests(options.withParent);
    kyLockFile lock;
    if (options.lockFile && !TakeLock(*options.lockFile, lock))
        return sFailure;
    const int exitCode = Supervisor(supervision, requests).run();
    std::string error;
    if (options.lockFile && !lock.releaseLock(true, &error))
        std::cerr << "ky: Cannot release " + *options.lockFile + ". " + error + "\n";
    return exitCode;
}

std::string CheckEntry(const std::string& entry)
{
    const std::size_t equals = entry.find('=');
    return equals == 0 || equals == std::string::npos ? "'" + entry + "' is not NAME=VALUE" : "";
}

void AddOptions(CLI::App& run, Options& options)
{
    run.add_option("-t,--timeout", options.supervision.timeoutMs,
                   "End it after this time, as in 500ms, 90s or 1h 30m; a number alone is seconds")
        ->transform(AsMilliseconds())
        ->type_name("DURATION");
    run.add_option(
           "--grace", options.supervision.graceMs,
           "What it gets from being asked to end (SIGTERM) to being killed, 5s if not given")
        ->transform(AsMilliseconds())
        ->type_name("DURATION")
        ->default_str("5s");
    run.add_option("-l,--lock", options.lockFile,
                   "Hold this lock file meanwhile, and fail at once while another process holds it")
        ->type_name("FILE");
    run.add_option("-m,--memory-limit", options.supervision.memoryLimitBytes,
                   "Kill it when a sample of its resident size is above this, as in 500K or 2G")
        ->transform(AsMemorySize())
        ->type_name("BYTES");
    run.add_option("-p,--priority", options.supervision.priority,
                   "low, normal, high (for the privileged) or inherit (the default)")
        ->transform(CLI::CheckedTransformer(sPriorities, CLI::ignore_case))
        ->type_name("PRIORITY");
    run.add_option("-d,--dir", options.folder, "Run it in this folder")->type_name("FOLDER");
    run.add_option("-e,--env", options.environment, "Add to its environment; may be repeated")
        ->check(CLI::Validator([](std::string& entry) { return CheckEntry(entry); }, ""))
        ->allow_extra_args(false)
        ->type_name("NAME=VALUE");
    run.add_option("-f,--log", options.logFile,
                   "Append to this log file when it starts and ends, how, and how large it gets")
        ->type_name("FILE");
    run.add_flag("--with-parent", options.withParent,
                 "End it when the process that started ky dies");
}

}  // namespace

void AddRun(CLI::App& app, const std::vector<std::string>& command, int& exitCode)
{
    auto* const run = app.add_subcommand(
        "run",
        "Run a command supervised: within its limits, one at a time, with a log of how it went.\n"
        "The exit code is that of the command, 128 more than the signal that killed it (137 above "
        "the memory limit), 124 when its time was over, 127 when it cannot be started, 1 without "
        "the lock, the folder or the log.\n"
        "At the time limit, on SIGINT, SIGTERM, SIGHUP and SIGQUIT, unless they are ignored, and "
        "with --with-parent when the parent dies, the command and all that it has started are sent "
        "SIGTERM and, after the time of grace, SIGKILL. A terminal's interrupt reaches the command "
        "too, which then gets both. SIGUSR1 and SIGUSR2 are passed on to it.\n"
        "The resident size is that of the command and all that it has started, sampled every "
        "100 ms; pages that they share count for each. What still runs when the command ends by "
        "itself is left alone, and so is what may not be killed, as a program of another user: ky "
        "then ends with 124 at the time limit, and with 1 otherwise.");
    const auto options = std::make_shared<Options>();
    options->supervision.graceMs = 5000;
    AddOptions(*run, *options);
    run->footer(
        "The command and its arguments stand behind \"--\": ky run --timeout 1h -- "
        "COMMAND...");
    run->callback([options, command, &exitCode] {
        if (command.empty())
            throw CLI::RequiredError("-- COMMAND");
        initializeKySystem(InitType::Full, false);
        exitCode = RunSupervised(*options, command);
        terminateKySystem();
    });
}

}  // namespace ky::tool

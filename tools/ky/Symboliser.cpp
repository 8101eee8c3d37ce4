#include "Symboliser.h"

#include "fs/ScopedHandles.h"

#include <chrono>
#include <sstream>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>

namespace ky::tool {
namespace {

constexpr std::string_view sNames[] = {"addr2line", "llvm-symbolizer", "llvm-symbolizer-14"};
constexpr std::size_t sMostOutputBytes = 4194304;
constexpr std::chrono::seconds sPatience(60);

bool IsProgram(const std::string& path)
{
    struct ::stat status = {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

std::string FindProgram(std::string_view name)
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread.
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        folder.append("/").append(name);
        if (folder.front() == '/' && IsProgram(folder))
            return folder;
    }
    return {};
}

class SpawnActions {
public:
    explicit SpawnActions(int output)
    {
        ::posix_spawn_file_actions_init(&mActions);
        ::posix_spawn_file_actions_addopen(&mActions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&mActions, output, STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&mActions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&mActions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;

    const posix_spawn_file_actions_t* get() const { return &mActions; }

private:
    posix_spawn_file_actions_t mActions;
};

/// -1 when it does not start. Nothing of the caller's environment goes along: neither a debug-file
/// server to ask over the network nor options of the program.
pid_t Start(const std::vector<std::string>& arguments, int output)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    char locale[] = "LC_ALL=C";
    char* const environment[] = {locale, nullptr};
    const SpawnActions actions(output);
    pid_t child = -1;
    return ::posix_spawn(&child, argv[0], actions.get(), nullptr, argv.data(), environment) == 0
               ? child
               : -1;
}

/// Whether the end of the output was reached in time.
bool ReadAll(int fd, std::string& output)
{
    const auto deadline = std::chrono::steady_clock::now() + sPatience;
    char buffer[65536];
    while (output.size() < sMostOutputBytes) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        ::pollfd descriptor = {fd, POLLIN, 0};
        const int ready = left.count() <= 0 ? 0 : impl::RetryOnEintr([&] {
            return ::poll(&descriptor, 1, static_cast<int>(left.count()));
        });
        if (ready <= 0)
            return false;
        const ssize_t size = impl::RetryOnEintr([&] { return ::read(fd, buffer, sizeof buffer); });
        if (size <= 0)
            return size == 0;
        output.append(buffer, static_cast<std::size_t>(size));
    }
    return false;
}

bool Run(const std::vector<std::string>& arguments, std::string& output)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const impl::ScopedFd reader(ends[0]);
    impl::ScopedFd writer(ends[1]);
    const pid_t child = Start(arguments, writer.get());
    writer.reset();
    if (child == -1)
        return false;
    const bool isComplete = ReadAll(reader.get(), output);
    if (!isComplete)
        ::kill(child, SIGKILL);
    int status = 0;
    impl::RetryOnEintr([&] { return ::waitpid(child, &status, 0); });
    return isComplete && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool IsUnknown(std::string_view text)
{
    return text.empty() || text.substr(0, 2) == "??";
}

/// Without "(discriminator 2)" and without the line that is not known.
std::string Place(std::string text)
{
    text.resize(std::min(text.find(" (discriminator"), text.size()));
    for (const std::string_view unknown : {":?", ":0"})
        if (text.size() > unknown.size() &&
            std::string_view(text).substr(text.size() - unknown.size()) == unknown)
            text.resize(text.size() - unknown.size());
    return IsUnknown(text) ? std::string() : text;
}

/// For each address a line with it, then pairs of lines: function and place.
void Parse(const std::string& output, const std::vector<std::uint64_t>& addresses,
           std::map<std::uint64_t, Symbols>& symbols)
{
    std::istringstream lines(output);
    std::string function;
    std::size_t group = 0;
    while (std::getline(lines, function)) {
        if (function.compare(0, 2, "0x") == 0) {
            ++group;
            continue;
        }
        std::string place;
        if (group == 0 || group > addresses.size() || !std::getline(lines, place))
            return;
        if (!IsUnknown(function))
            symbols[addresses[group - 1]].push_back({function, Place(place)});
    }
}

std::string Hex(std::uint64_t number)
{
    std::ostringstream text;
    text << "0x" << std::hex << number;
    return text.str();
}

}  // namespace

Symboliser::Symboliser()
{
    for (const std::string_view name : sNames) {
        mProgram = FindProgram(name);
        mIsLlvm = name.substr(0, 4) == "llvm";
        if (isFound())
            return;
    }
}

bool Symboliser::look(const std::string& path, const std::vector<std::uint64_t>& addresses,
                      std::map<std::uint64_t, Symbols>& symbols) const
{
    // The path stands behind "=", so that it is never an option nor a file of options.
    std::vector<std::string> arguments = {mProgram};
    if (mIsLlvm)
        arguments.insert(arguments.end(), {"--output-style=GNU", "--addresses", "--functions",
                                           "--demangle", "--inlines", "--obj=" + path});
    else
        arguments.insert(arguments.end(), {"--addresses", "--functions", "--demangle", "--inlines",
                                           "--exe=" + path});
    for (const std::uint64_t address : addresses)
        arguments.push_back(Hex(address));
    std::string output;
    if (!Run(arguments, output))
        return false;
    Parse(output, addresses, symbols);
    return true;
}

}  // namespace ky::tool

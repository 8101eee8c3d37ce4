#include "Commands.h"
#include "StandardStreams.h"

#include "ky/kyVersion.h"

#include <new>
#include <string>
#include <utility>
#include <vector>

#include <cerrno>

namespace {

/// The arguments, last one first, as the parser takes them. "--name=" is split: the parser would
/// take the next argument for the value that is empty here.
std::vector<std::string> Arguments(int argc, char** argv)
{
    std::vector<std::string> arguments;
    for (int i = argc - 1; i > 0; --i) {
        std::string argument = argv[i];
        if (argument.size() > 3 && argument.compare(0, 2, "--") == 0 && argument.back() == '=') {
            argument.pop_back();
            arguments.emplace_back();
        }
        arguments.push_back(std::move(argument));
    }
    return arguments;
}

}  // namespace

int main(int argc, char** argv)
{
    ky::tool::OccupyStandardDescriptors();
    int exitCode = ky::tool::sSuccess;
    const ky::tool::CheckedOutput output;
    CLI::App app("System services of kySystem for scripts.", "ky");
    app.require_subcommand(1);
    app.set_version_flag("--version",
                         kySystem::Version::GetDescStringMajorMinorReleaseRevision(true, true));
    ky::tool::AddCrash(app, exitCode);
    ky::tool::AddInfo(app, exitCode);
    ky::tool::AddLog(app, exitCode);
    try {
        app.parse(Arguments(argc, argv));
    } catch (const CLI::ParseError& outcome) {
        if (app.exit(outcome) != 0)
            return ky::tool::sUsageError;
    } catch (const std::bad_alloc&) {
        ky::tool::PrintError("Out of memory", ENOMEM);
        return ky::tool::sFailure;
    }
    return output.reportFailure() ? ky::tool::sFailure : exitCode;
}

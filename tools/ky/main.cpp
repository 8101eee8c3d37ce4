#include "Commands.h"
#include "SpelledCommand.h"
#include "StandardStreams.h"

#include "ky/kyVersion.h"

#include <algorithm>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <cerrno>

namespace {

/// The sub-commands that run another program, whose command line is none of the parser's business:
/// it would take "[a,b]" for two arguments.
bool RunsProgram(int argc, char** argv)
{
    return argc > 1 && (argv[1] == std::string("lock") || argv[1] == std::string("run"));
}

/// The place of the first "--", or `argc`.
int PlaceOfMark(int argc, char** argv)
{
    int place = 1;
    while (place < argc && argv[place] != std::string("--"))
        ++place;
    return std::min(place, argc);
}

/// The arguments before `end`, last one first, as the parser takes them. "--name=" before `mark` is
/// split: the parser would take the next argument for the value that is empty here.
std::vector<std::string> Arguments(int end, int mark, char** argv)
{
    std::vector<std::string> arguments;
    for (int i = end - 1; i > 0; --i) {
        std::string argument = argv[i];
        if (i < mark && argument.size() > 3 && argument.compare(0, 2, "--") == 0 &&
            argument.back() == '=') {
            argument.pop_back();
            arguments.emplace_back();
        }
        arguments.push_back(std::move(argument));
    }
    return arguments;
}

/// Lists sub-commands with the first sentence of what each tells about itself.
class Help : public CLI::Formatter {
public:
    std::string make_subcommand(const CLI::App* command) const override
    {
        std::string text = command->get_description();
        text.resize(std::min({text.find('\n'), text.find(". "), text.size()}));
        if (!text.empty() && text.back() == '.')
            text.pop_back();
        std::ostringstream out;
        CLI::detail::format_help(out, command->get_display_name(true), text, column_width_);
        return out.str();
    }
};

}  // namespace

int main(int argc, char** argv)
{
    ky::tool::OccupyStandardDescriptors();
    ky::tool::BecomeSpelledCommand(argv);
    const int mark = PlaceOfMark(argc, argv);
    const int end = RunsProgram(argc, argv) ? mark : argc;
    int exitCode = ky::tool::sSuccess;
    const ky::tool::CheckedOutput output;
    CLI::App app("System services of kySystem for scripts.", "ky");
    // Sub-commands take it over when they are added.
    app.formatter(std::make_shared<Help>());
    app.require_subcommand(1);
    app.set_version_flag("--version",
                         kySystem::Version::GetDescStringMajorMinorReleaseRevision(true, true));
    const std::vector<std::string> command(argv + std::min(end + 1, argc), argv + argc);
    ky::tool::AddCrash(app, exitCode);
    ky::tool::AddInfo(app, exitCode);
    ky::tool::AddIni(app, exitCode);
    ky::tool::AddLock(app, command, exitCode);
    ky::tool::AddLog(app, exitCode);
    ky::tool::AddMime(app, exitCode);
    ky::tool::AddPipe(app, exitCode);
    ky::tool::AddRun(app, command, exitCode);
    ky::tool::AddTee(app, exitCode);
    ky::tool::AddTree(app, exitCode);
    try {
        app.parse(Arguments(end, mark, argv));
    } catch (const CLI::RequiredError& outcome) {
        // Before an unknown word the parser sees that a known one is missing.
        const std::vector<std::string> unknown = app.remaining(true);
        static_cast<void>(unknown.empty() ? app.exit(outcome)
                                          : app.exit(CLI::ExtrasError(unknown)));
        return ky::tool::sUsageError;
    } catch (const CLI::ParseError& outcome) {
        if (app.exit(outcome) != 0)
            return ky::tool::sUsageError;
    } catch (const std::bad_alloc&) {
        ky::tool::PrintError("Out of memory", ENOMEM);
        return ky::tool::sFailure;
    } catch (const std::system_error& refusal) {
        // Of a thread, where a user may have no more.
        ky::tool::PrintError("Cannot go on", refusal.code().value());
        return ky::tool::sFailure;
    }
    return output.reportFailure() ? ky::tool::sFailure : exitCode;
}

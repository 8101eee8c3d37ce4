#include "Commands.h"
#include "StandardStreams.h"

#include "ky/kyVersion.h"

int main(int argc, char** argv)
{
    ky::tool::OccupyStandardDescriptors();
    int exitCode = ky::tool::sSuccess;
    const ky::tool::CheckedOutput output;
    CLI::App app("System services of kySystem for scripts.", "ky");
    app.require_subcommand(1);
    app.set_version_flag("--version",
                         kySystem::Version::GetDescStringMajorMinorReleaseRevision(true, true));
    ky::tool::AddInfo(app, exitCode);
    ky::tool::AddLog(app, exitCode);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& outcome) {
        if (app.exit(outcome) != 0)
            return ky::tool::sUsageError;
    }
    return output.reportFailure() ? ky::tool::sFailure : exitCode;
}

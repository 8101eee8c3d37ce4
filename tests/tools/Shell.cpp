#include "tools/Shell.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <unistd.h>
#include <csignal>
#include <cstdlib>

namespace ky::test {

ChildResult RunShell(const TemporaryFolder& folder, const std::string& script,
                     std::string_view input)
{
    const std::string commands = std::filesystem::path(KY_COMMAND).parent_path();
    const auto prepare = [&] {
        std::filesystem::current_path(folder.path(""));
        ::setenv("TMPDIR", folder.path("").c_str(), 1);
        ::setenv("PATH", (commands + ":" + std::getenv("PATH")).c_str(), 1);
        ::signal(SIGPIPE, SIG_DFL);  // which tests of the whole library ignore
    };
    return RunCommand({"timeout", "100", "sh", "-c", script}, input, prepare);
}

void ExpectShell(const TemporaryFolder& folder, const std::vector<ShellRow>& rows)
{
    for (const ShellRow& row : rows) {
        SCOPED_TRACE(row.script);
        const ChildResult result = RunShell(folder, row.script);
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_EQ(result.out, row.out);
        const std::vector<std::string> errors = Lines(result.err);
        EXPECT_EQ(errors.size(), row.errors.size()) << result.err;
        for (std::size_t i = 0; i < std::min(errors.size(), row.errors.size()); ++i)
            EXPECT_TRUE(Contains(errors[i], row.errors[i])) << errors[i];
    }
}

}  // namespace ky::test

#pragma once

#include "support/Child.h"

#include <string>
#include <string_view>
#include <vector>

namespace ky::test {

/// Runs a script of sh(1), in which "ky" is the command, in that folder, which is the temporary
/// folder too. Ended after 100 seconds.
ChildResult RunShell(const TemporaryFolder& folder, const std::string& script,
                     std::string_view input = {});

/// A script, its whole output, and a part of each line of its errors.
struct ShellRow {
    std::string script;
    int exitCode = 0;
    std::string out = {};
    std::vector<std::string> errors = {};
};

/// Runs one after the other.
void ExpectShell(const TemporaryFolder& folder, const std::vector<ShellRow>& rows);

}  // namespace ky::test

#pragma once

#include <CLI/CLI.hpp>

namespace ky::tool {

/// Takes numbers with the units ms, s, m, h and d, as in "500ms", "1.5h" and "1h 30m", or one
/// number without unit, which means seconds, and gives whole milliseconds, at least one.
CLI::Validator AsMilliseconds();

}  // namespace ky::tool

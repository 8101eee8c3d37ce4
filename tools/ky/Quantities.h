#pragma once

#include <CLI/CLI.hpp>

namespace ky::tool {

/// Takes numbers with the units ms, s, m, h and d, as in "500ms", "1.5h" and "1h 30m", or one
/// number without unit, which means seconds, and gives whole milliseconds, at least one.
CLI::Validator AsMilliseconds();

/// Takes a number, alone or with one of the units B, K, M, G, T and P, powers of 1024, also as "MB"
/// or "MiB" and in small letters, as in "500K" and "1.5g", and gives whole bytes: from the 4096 of
/// a page, below which no process can stay, to the 2^52 that the processor can address.
CLI::Validator AsMemorySize();

}  // namespace ky::tool

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ky::tool {

struct Symbol {
    std::string function;
    std::string place;  ///< "file:line", empty when it is unknown
};

/// Innermost first: what is inlined, then what it is inlined into.
using Symbols = std::vector<Symbol>;

/// A program of the system that knows the functions and lines of a file: addr2line of binutils or
/// llvm-symbolizer.
class Symboliser {
public:
    /// Looks for one in the absolute folders of `PATH`.
    Symboliser();

    bool isFound() const { return !mProgram.empty(); }

    /// Fills `symbols` with what is known of `addresses`, which count as the link editor has put
    /// them, in the file at `path`. False when the program fails or takes longer than a minute.
    bool look(const std::string& path, const std::vector<std::uint64_t>& addresses,
              std::map<std::uint64_t, Symbols>& symbols) const;

private:
    std::string mProgram;
    bool mIsLlvm = false;
};

}  // namespace ky::tool

#pragma once

#include <cstdint>
#include <string>

namespace ky::tool {

/// What is needed of a program or shared object to find its functions.
struct ElfFacts {
    std::uint64_t firstAddress = 0;  ///< where the link editor has put the first byte
    std::string buildId;             ///< in hex, empty without one
};

/// Reads the file at `path`, which may be any file at all: nothing but a regular file is opened.
/// Empty `error` on success, otherwise a text such as "no such file".
ElfFacts ReadElfFile(const std::string& path, std::string& error);

}  // namespace ky::tool

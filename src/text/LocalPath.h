#pragma once

#include <string>

namespace ky::impl {

/// What a path in UTF-8 is called in the local 8-bit set, as system calls take it.
///
/// Empty, for which every system call fails with ENOENT, where the name does not survive the way
/// there and back or has a zero byte in it: what stands in for a character that the local set
/// lacks could be another file's name. ASCII needs no initialisation of the library, since every
/// local set of this platform has it.
std::string ToLocalPath(const std::string& pathUtf8);

/// A text that names no file. What the local set lacks is replaced (`convertCharset`); "" for one
/// that does not convert.
std::string ToLocalText(const std::string& textUtf8);

/// A name that the system gave, for messages and results. Empty where its bytes do not convert.
std::string ToUtf8Path(const std::string& localPath);

}  // namespace ky::impl

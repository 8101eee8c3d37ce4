#pragma once

#include <string>

namespace ky::impl {

/// Creates every missing folder of `localPath` with mode 0777, less the umask, from its start on.
/// True when the whole path is a folder afterwards, whoever made it: losing to another process
/// that makes the same one is no failure. Else false with the failing call's `errno`, ENOTDIR
/// where something that is no folder stands in the way.
bool MakePath(std::string localPath);

}  // namespace ky::impl

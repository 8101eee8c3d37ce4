#pragma once

#include "ky/SystemError.h"

#include <string>

#include <cerrno>

namespace ky::impl {

/// Puts what `kyDirUtils::RemoveFileUtf8` says of a failure into `error`, which may be null, and
/// the number into `errno`. Returns false.
inline bool FailToRemove(std::string* error, const std::string& path, int errorNumber)
{
    if (error != nullptr)
        *error = "remove error " + SystemError(errorNumber).toString() + " for '" + path + "'";
    errno = errorNumber;
    return false;
}

}  // namespace ky::impl

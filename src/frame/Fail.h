#pragma once

#include "ky/SystemError.h"

#include <string>

#include <cerrno>

namespace ky::impl {

/// Puts `text` and the description of `errorNumber` into `error`, which may be null, and the number
/// into `errno`. Returns false, for the last line of what has failed.
inline bool Fail(std::string* error, const char* text, int errorNumber)
{
    if (error != nullptr)
        *error = text + SystemError(errorNumber).toString();
    errno = errorNumber;
    return false;
}

}  // namespace ky::impl

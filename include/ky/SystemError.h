#pragma once

#include "ky/kyExport.h"

#include <cstdint>
#include <string>

namespace ky {

/// An error number of the operating system (errno(3)) that can describe itself.
///
/// A plain value. Any thread may describe any value at any time.
class KY_API SystemError {
public:
    /// Code 0. Does not read `errno`: pass the number that was saved right after the failed call.
    SystemError() = default;

    /// Any number is allowed. Implicit, so that a saved `errno` can stand where an error is asked.
    SystemError(int code);

    /// One line with number, symbolic name and the system's description, as in
    /// "System error : '(2) ENOENT No such file or directory'".
    ///
    /// Numbers that share two names show both, "EAGAIN/EWOULDBLOCK". A number that Linux does not
    /// assign, 0 and 95 have the name "UNKNOWN_ENUM". The description is that of strerror(3): in
    /// the language and the 8-bit encoding of the process locale. Leaves `errno` as it was.
    std::string toString() const;

private:
    std::int32_t mCode = 0;
};

}  // namespace ky

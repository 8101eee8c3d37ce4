#pragma once

#include <string_view>

namespace ky::impl {

/// The local time of `seconds` since the epoch as it stands in a log line, in UTF-8. Computed once
/// per second and thread; valid until the thread's next call.
std::string_view LogTime(long seconds);

}  // namespace ky::impl

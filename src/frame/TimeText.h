#pragma once

#include <string>

namespace ky::impl {

/// Seconds since the epoch through strftime(3), in local time or UTC, in the local 8-bit set. At
/// most 128 bytes; a longer result, and seconds that have no calendar year, give an empty text, as
/// does a signal handler that has interrupted this function on its thread: the C library would wait
/// for its own lock.
std::string FormatTime(long seconds, const char* format, bool localTime);

/// Takes the time zone from the environment (tzset(3)).
void TakeTimeZone();

/// Changes with each `TakeTimeZone`: a text kept from another one may show the wrong zone.
unsigned int TimeZoneGeneration() noexcept;

}  // namespace ky::impl

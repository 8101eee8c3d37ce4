#pragma once

namespace ky::impl {

/// The log is known to be stuck: the flush at exit does not wait for it once more. Any thread.
void SkipFlushAtExit() noexcept;

}  // namespace ky::impl

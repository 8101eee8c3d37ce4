#pragma once

#include <csignal>

namespace ky::impl {

/// The signal mask for what the calling thread starts, be it threads or programs: its own mask or,
/// on a thread of the library, which blocks what is not its business, the mask under which that
/// thread was created. Signal-safe.
sigset_t LaunchSignalMask() noexcept;

}  // namespace ky::impl

#pragma once

namespace ky::impl {

/// getpid(2) without the system call: the number is kept in a page that the kernel empties in
/// every child (madvise(2), MADV_WIPEONFORK), however it was forked, and read anew when it is
/// missing. Where the kernel has no such pages each call asks it. Any thread.
unsigned long CachedProcessId() noexcept;

}  // namespace ky::impl

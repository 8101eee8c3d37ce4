#pragma once

namespace ky::impl {

/// Flags that hosts lend us are plain bools which other threads and signal handlers may write.
inline bool IsFlagSet(const bool* flag)
{
    return __atomic_load_n(flag, __ATOMIC_RELAXED);
}

inline void SetFlag(bool* flag, bool value)
{
    __atomic_store_n(flag, value, __ATOMIC_RELAXED);
}

}  // namespace ky::impl

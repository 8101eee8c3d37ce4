#pragma once

namespace ky::impl {

/// Makes the calling thread the main one, until another one is recorded or the record is dropped.
void RecordMainThread() noexcept;
void ForgetMainThread() noexcept;

/// Whether the calling thread is the one that was recorded in this process or, without a record,
/// as in a forked child, the one with which the process began. Any thread.
bool IsMainThread() noexcept;

}  // namespace ky::impl

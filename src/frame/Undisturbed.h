#pragma once

#include "frame/CancelBan.h"

#include <cerrno>

namespace ky::impl {

/// Keeps the log's work from disturbing its caller and from being torn apart by it: `errno` is put
/// back at the end, and the thread is not cancelled meanwhile, which would end the process in a
/// destructor.
class Undisturbed {
public:
    Undisturbed() noexcept : mErrno(errno) {}
    ~Undisturbed() { errno = mErrno; }
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;

private:
    const int mErrno;
    const CancelBan mBan;
};

}  // namespace ky::impl

#pragma once

#include "ky/kySystem.h"

/// The library at the full level while it lives, as services use it: with the log's thread and the
/// signals taken over.
struct FullLibrary {
    FullLibrary() { ky::initializeKySystem(ky::InitType::Full, false); }
    ~FullLibrary() { ky::terminateKySystem(); }
    FullLibrary(const FullLibrary&) = delete;
    FullLibrary& operator=(const FullLibrary&) = delete;
};

#pragma once

#include "ky/kySystem.h"

#include "frame/Report.h"

namespace ky::impl {

/// Logs `text` when the library is not up at the full level. The last thing that a constructor
/// does: the log may use the object's kind itself.
inline void ReportEarlyCreation(const char* text)
{
    if (!IsKySystemThreadSafe())
        ReportIfLogged(ReportLevel::Critical, "kySystem", text);
}

constexpr const char* sEarlyMutexText = "Mutex created before full init of kySystem";

}  // namespace ky::impl

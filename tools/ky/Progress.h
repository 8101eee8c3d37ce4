#pragma once

#include "ky/kyProgressNotifier.h"

#include <memory>

namespace ky::tool {

/// Shows nothing when `quiet`, else a bar on a terminal, and elsewhere a line for each 10 %.
///
/// From the first call on SIGINT, SIGTERM and SIGHUP, where they are not ignored, cancel instead of
/// ending the process, and a reader of standard output that goes away only makes writing fail.
std::unique_ptr<kyProgressNotifierInterface> MakeProgress(bool quiet);

/// Makes room for a message where the bar is, if there is one; it appears again when it changes.
void EraseBar();

/// Keeps the bar, if there is one, and goes to the next line.
void LeaveBar();

}  // namespace ky::tool

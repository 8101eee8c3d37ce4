// A plug-in that may crash, called under a guard: the crash is reported with a stack trace, and the
// host goes on.

#include "ky/kyException.h"
#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <csignal>

namespace {

void CallPlugIn(void* isDone)
{
    std::raise(SIGFPE);
    *static_cast<bool*>(isDone) = true;
}

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    bool isDone = false;
    ky::exception::impl::ExecGuardedCode(&CallPlugIn, &isDone);
    ky::kyLogObject(ky::kyLog::Warning)
        << (isDone ? "the plug-in is done" : "the plug-in has crashed, going on without it");
    ky::terminateKySystem();
    return isDone ? 1 : 0;
}

#include "ky/kyException.h"
#include "ky/kyLog.h"
#include "ky/kyMathUtils.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystem.h"
#include "ky/kySystemUtils.h"
#include "ky/kyWaitCondition.h"

#include "frame/MainThread.h"
#include "frame/ResourceRegistry.h"
#include "frame/State.h"
#include "text/MimeTable.h"
#include "thread/ProcessPool.h"

namespace ky {
namespace {

// The names fit into a string's own buffer: nothing is allocated, nothing can throw.
// NOLINTBEGIN(cert-err58-cpp)
impl::LibInitCounter sLightCounter("systemlight", true);
impl::LibInitCounter sFullCounter("systemfull", false);
// NOLINTEND(cert-err58-cpp)

void StartLight()
{
    impl::State::SetLevel(static_cast<int>(InitType::Light));
    impl::RecordMainThread();
    // First of all: whatever is created after it may have something to report.
    kyLog::createInstance(false);
    kyMathUtils::InitializeLaneMasks();
    kySystemUtils::InitializeSystemUtils();
    kyStringUtils::InitializeStringUtils();
    impl::CreateResourceRegistry();
    impl::BuildMimeTable();
}

void StartFull(bool lookupMainHddDevice)
{
    // Level and process id stay together: between them a forked child that starts anew would be
    // taken for one that went on.
    impl::State::SetLevel(static_cast<int>(InitType::Full));
    impl::State::SetFullInitProcessId(kySystemUtils::GetCurrentProcessID());
    impl::LockResourceRegistry();
    if (kyLog* const log = kyLog::Instance())
        log->makeThreadSafe();
    kyWaitCondition::FindBestImplementation();
    if (lookupMainHddDevice)
        getMainHDDDevice();
    impl::CreateProcessPool(kySystemUtils::GetIdealThreadCount());
    exception::impl::RegisterSigWatcher();
}

void EndFull()
{
    // While the log is there: the pool's threads may have something to report as they end.
    impl::DestroyProcessPool();
    exception::impl::ReleaseSigWatcher();
}

}  // namespace

void initializeKySystem(InitType type, bool lookupMainHddDevice)
{
    if (type != InitType::Light && type != InitType::Full)
        return;
    const bool isFirstLight = sLightCounter.incrementInitCounter();
    const bool isFirstFull = type == InitType::Full && sFullCounter.incrementInitCounter();
    try {
        if (isFirstLight)
            StartLight();
        // After a surplus terminate the full steps run without the light ones: each of them stands
        // it that there is no log and no string utilities.
        if (isFirstFull)
            StartFull(lookupMainHddDevice);
    } catch (...) {
        // Out of memory or threads. This call has no user to terminate for; the next may succeed.
        if (isFirstFull) {
            sFullCounter.clearInitCounter();
            EndFull();
            impl::State::SetLevel(static_cast<int>(InitType::Light));
        }
        terminateKySystem();
        throw;
    }
}

void terminateKySystem()
{
    if (!sLightCounter.decrementInitCounter())
        return;
    sFullCounter.clearInitCounter();
    // Whatever the level: after a surplus terminate, light steps can follow full ones.
    EndFull();
    impl::DestroyResourceRegistry();
    // The last lines of the log need the string utilities for their time.
    if (kyLog* const log = kyLog::Instance())
        log->flush();
    kyStringUtils::TerminateStringUtils();
    kySystemUtils::TerminateSystemUtils();
    kyLog::destroyInstance();
    impl::ForgetMainThread();
    impl::State::SetLevel(0);
}

}  // namespace ky

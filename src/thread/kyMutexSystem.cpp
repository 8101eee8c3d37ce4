#include "ky/SystemError.h"
#include "ky/kyMutex.h"
#include "ky/kySystem.h"

#include "frame/Report.h"
#include "thread/EarlyCreation.h"
#include "thread/SystemLock.h"

#include <string>

namespace ky {

struct kyMutexSystem::Record {
    impl::SystemLock lock;
};

kyMutexSystem::kyMutexSystem(const char* name) : mRecord(std::make_unique<Record>())
{
    std::string shownName = name != nullptr ? name : "";
    const int error =
        name != nullptr ? mRecord->lock.open(shownName) : mRecord->lock.openUnnamed(shownName);
    if (error != 0)
        impl::Report(impl::ReportLevel::Critical, "kySystem",
                     "Fail to create lock for file '" + shownName + "' error " +
                         SystemError(error).toString());
    impl::ReportEarlyCreation(impl::sEarlyMutexText);
}

kyMutexSystem::~kyMutexSystem()
{
    CheckIfProcessForkAfterThreadSafeInit();
}

void kyMutexSystem::lock()
{
    mRecord->lock.lock();
}

void kyMutexSystem::unlock()
{
    mRecord->lock.unlock();
}

}  // namespace ky

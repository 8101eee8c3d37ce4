#include "ky/kyResource.h"

#include "ky/kyMutex.h"

#include "frame/ForkSafeLock.h"
#include "frame/Report.h"
#include "frame/ResourceRegistry.h"
#include "log/LogWriter.h"

#include <map>
#include <memory>
#include <utility>

#include <pthread.h>

namespace ky {
namespace {

constexpr unsigned long sDigestLength = 64;

struct Entry {
    const char* digest;
    const char* data;
    unsigned long size;
};

struct Registry {
    std::map<std::string, Entry> entries;
    std::unique_ptr<kyMutex> lock;  // the last one, so that it goes first
};

// Constant-initialised: modules register in static constructors, before all of ours may have run.
constinit Registry* sRegistry = nullptr;

// Around every look at sRegistry and what it holds, and nothing else: whoever holds it waits for
// nobody. fork(2) can wait for it, whatever else the forking thread holds, and leaves a child a map
// that is whole.
using MapLock = impl::ForkSafeLock<struct ResourceMapTag>;

/// In a forked child, where the lock's holder may not exist. A new kyMutex would be told in the
/// log, so that it is only free again.
void RenewLocks()
{
    if (sRegistry != nullptr && sRegistry->lock != nullptr) {
        pthread_mutexattr_t attribute;
        ::pthread_mutexattr_init(&attribute);
        ::pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE);
        ::pthread_mutex_init(sRegistry->lock->getMutexData(), &attribute);
        ::pthread_mutexattr_destroy(&attribute);
    }
    MapLock::Give();
}

/// In a constructor of the library, so that hooks registered later take their locks first.
__attribute__((constructor)) void KeepForkOutOfResources()
{
    ::pthread_atfork(&MapLock::Take, &MapLock::Give, &RenewLocks);
}

/// Holds the registry's lock, if it has one, for a whole operation with the lines that it logs.
class Operation {
public:
    Operation() : mLock(FindLock())
    {
        if (mLock != nullptr)
            mLock->lock();
    }
    ~Operation()
    {
        if (mLock != nullptr)
            mLock->unlock();
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

private:
    /// None for a custom handler of the log: who holds the lock may be logging and wait for that
    /// handler, when the queue of the log is full say.
    static kyMutex* FindLock()
    {
        const MapLock map;
        return sRegistry != nullptr && !impl::IsHandlerRunning() ? sRegistry->lock.get() : nullptr;
    }

    kyMutex* const mLock;
};

/// Without a flush, which would wait for the log while the lock is held.
void ReportAbout(const char* text, const std::string& name)
{
    impl::Report(impl::ReportLevel::Critical, nullptr, text + name, false);
}

/// False when there is one of that name.
bool Insert(const std::string& name, const Entry& entry)
{
    const MapLock map;
    if (sRegistry == nullptr)
        sRegistry = new Registry;
    return sRegistry->entries.try_emplace(name, entry).second;
}

/// False when there is none of that name, but not when there is no registry.
bool Erase(const std::string& name)
{
    const MapLock map;
    return sRegistry == nullptr || sRegistry->entries.erase(name) != 0;
}

bool HasRegistry()
{
    const MapLock map;
    return sRegistry != nullptr;
}

bool HasLock()
{
    const MapLock map;
    return sRegistry->lock != nullptr;
}

/// Calls `take` with the entry while nobody can remove it, or with null.
template <typename Take>
bool Find(const char* name, Take take)
{
    // A copy, since the name may be part of the output; null throws here.
    const std::string key(name);
    {
        const Operation operation;
        const MapLock map;
        if (sRegistry != nullptr) {
            const auto found = sRegistry->entries.find(key);
            if (found != sRegistry->entries.end()) {
                take(&found->second);
                return true;
            }
        }
    }
    take(nullptr);
    ReportAbout("Resource is missing ", key);
    return false;
}

}  // namespace

void impl::CreateResourceRegistry()
{
    const MapLock map;
    if (sRegistry == nullptr)
        sRegistry = new Registry;
}

void impl::LockResourceRegistry()
{
    CreateResourceRegistry();
    if (HasLock())
        return;
    // Made outside the map's lock: the constructor may log.
    auto lock = std::make_unique<kyMutex>();
    const MapLock map;
    sRegistry->lock = std::move(lock);
}

void impl::DestroyResourceRegistry()
{
    std::unique_ptr<Registry> last;
    const MapLock map;
    last.reset(std::exchange(sRegistry, nullptr));
}

bool rc::GetResource(const char* name, const char*& data, unsigned long& size)
{
    return Find(name, [&](const Entry* entry) {
        data = entry != nullptr ? entry->data : nullptr;
        size = entry != nullptr ? entry->size : 0;
    });
}

bool rc::GetResource(const char* name, std::string& out)
{
    if (name == nullptr)
        out.clear();
    return Find(name, [&](const Entry* entry) {
        out.clear();
        if (entry != nullptr)
            out.append(entry->data, entry->size);
    });
}

bool rc::GetResourceSha256Hex(const char* name, const char*& digest, unsigned long& size)
{
    return Find(name, [&](const Entry* entry) {
        digest = entry != nullptr ? entry->digest : nullptr;
        size = entry != nullptr ? sDigestLength : 0;
    });
}

bool rc::GetResourceSha256Hex(const char* name, std::string& out)
{
    if (name == nullptr)
        out.clear();
    return Find(name, [&](const Entry* entry) {
        out.clear();
        if (entry != nullptr)
            out.append(entry->digest, sDigestLength);
    });
}

void rc::impl::RegisterResources(unsigned long count, const char* blob, const char* const* names,
                                 const char* const* sha256Hex, const unsigned long* sizes,
                                 const unsigned long* offsets)
{
    const Operation operation;
    for (unsigned long i = 0; i < count; ++i) {
        const std::string name(names[i]);
        if (!Insert(name, {sha256Hex[i], blob + offsets[i], sizes[i]}))
            ReportAbout("Resource conflict ", name);
    }
}

void rc::impl::UnRegisterResources(unsigned long count, const char* /*blob*/,
                                   const char* const* names, const char* const* /*sha256Hex*/,
                                   const unsigned long* /*sizes*/, const unsigned long* /*offsets*/)
{
    const Operation operation;
    if (!HasRegistry())
        return;
    for (unsigned long i = 0; i < count; ++i) {
        const std::string name(names[i]);
        if (!Erase(name))
            ReportAbout("Resource is already unregistered ", name);
    }
}

}  // namespace ky

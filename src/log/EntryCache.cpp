#include "log/EntryCache.h"

#include "frame/SignalStack.h"

#include <memory>
#include <new>

#include <pthread.h>

namespace ky::impl {
namespace {

constexpr std::size_t sKeptTextBytes = 512;
constexpr std::size_t sMostOwn = 8;  // log objects within log objects

// The thread's own entries. Not a thread-local list, because whoever logs after its destructor
// would find it destroyed: the key's destructor comes after all of those, and leaves a mark.
struct ThreadsOwn {
    Entries entries;
    // A thread that logs is one whose crash is to be reported, a stack overflow too.
    impl::ScopedSignalStack signalStack;
};

constinit thread_local ThreadsOwn* tOwn = nullptr;
constinit thread_local bool tHasEnded = false;

void EndThread(void* own)
{
    tOwn = nullptr;
    tHasEnded = true;
    delete static_cast<ThreadsOwn*>(own);
}

pthread_key_t EndKey()
{
    static const pthread_key_t sKey = [] {
        pthread_key_t key = 0;
        return ::pthread_key_create(&key, &EndThread) == 0 ? key : PTHREAD_KEYS_MAX;
    }();
    return sKey;
}

/// Null where the thread may keep nothing.
Entries* Own()
{
    if (tOwn != nullptr)
        return &tOwn->entries;
    if (tHasEnded)
        return nullptr;
    auto made = std::make_unique<ThreadsOwn>();
    if (::pthread_setspecific(EndKey(), made.get()) != 0) {
        tHasEnded = true;
        return nullptr;
    }
    tOwn = made.release();
    return &tOwn->entries;
}

/// Lets go of what memory is not worth keeping.
void CleanEntry(kyLog::LogEntry& entry)
{
    for (std::string* text :
         {&entry.message, &entry.subType, &entry.systemLogName, &entry.prefix, &entry.threadId}) {
        if (text->capacity() > sKeptTextBytes)
            std::string().swap(*text);
        text->clear();
    }
    entry.level = kyLog::Suppressed;
}

}  // namespace

void TakeEntry(Entries& entries)
{
    Entries* const own = Own();
    if (own != nullptr && !own->empty())
        entries.splice(entries.end(), *own, own->begin());
    else
        entries.emplace_back();
}

void KeepEntries(Entries& entries)
{
    if (entries.empty())
        return;
    Entries* const own = Own();
    if (own == nullptr || own->size() + entries.size() > sMostOwn)
        return entries.clear();
    for (kyLog::LogEntry& entry : entries)
        CleanEntry(entry);
    own->splice(own->end(), entries);
}

}  // namespace ky::impl

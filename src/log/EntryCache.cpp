#include "log/EntryCache.h"

#include <memory>
#include <new>

#include <pthread.h>

namespace ky::impl {
namespace {

constexpr std::size_t sKeptTextBytes = 512;

// The thread's own entries. Not a thread-local list, because whoever logs after its destructor
// would find it destroyed: the key's destructor comes after all of those, and leaves a mark.
constinit thread_local Entries* tOwn = nullptr;
constinit thread_local bool tHasEnded = false;

void EndThread(void* own)
{
    tOwn = nullptr;
    tHasEnded = true;
    delete static_cast<Entries*>(own);
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
    if (tOwn != nullptr || tHasEnded)
        return tOwn;
    auto made = std::make_unique<Entries>();
    if (::pthread_setspecific(EndKey(), made.get()) != 0) {
        tHasEnded = true;
        return nullptr;
    }
    tOwn = made.release();
    return tOwn;
}

void CleanText(std::string& text)
{
    if (text.capacity() > sKeptTextBytes)
        std::string().swap(text);
    text.clear();
}

}  // namespace

void TakeEntry(Entries& entries)
{
    if (tOwn != nullptr && !tOwn->empty())
        entries.splice(entries.end(), *tOwn, tOwn->begin());
    else
        entries.emplace_back();
}

void KeepEntries(Entries& entries, bool areClean)
{
    if (entries.empty())
        return;
    Entries* const own = Own();
    if (own == nullptr || own->size() + entries.size() > sEntriesOfAChunk)
        return entries.clear();
    if (!areClean) {
        for (kyLog::LogEntry& entry : entries)
            CleanEntry(entry);
    }
    own->splice(own->end(), entries);
}

bool WantsEntries() noexcept
{
    return !tHasEnded && (tOwn == nullptr || tOwn->empty());
}

void CleanEntry(kyLog::LogEntry& entry)
{
    for (std::string* text :
         {&entry.message, &entry.subType, &entry.systemLogName, &entry.prefix, &entry.threadId})
        CleanText(*text);
    entry.level = kyLog::Suppressed;
}

}  // namespace ky::impl

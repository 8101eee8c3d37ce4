#include "log/EntryQueue.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

namespace ky::impl {

EntryView::EntryView(const kyLog::LogEntry& entry)
    : message(entry.message),
      subType(entry.subType),
      systemLogName(entry.systemLogName),
      threadId(entry.threadId),
      timeMs(entry.timeMs),
      level(entry.level)
{}

EntryChunks::Chunk* EntryChunks::take()
{
    if (mFirst == nullptr)
        return new Chunk;
    Chunk* const chunk = std::exchange(mFirst, mFirst->next);
    --mCount;
    chunk->next = nullptr;
    chunk->begin = 0;
    chunk->end = 0;
    return chunk;
}

void EntryChunks::keep(Chunk* chunk)
{
    chunk->next = mFirst;
    if (mFirst == nullptr)
        mLast = chunk;
    mFirst = chunk;
    ++mCount;
}

void EntryChunks::trim(std::size_t most)
{
    while (mCount > most)
        delete take();
}

void EntryChunks::splice(EntryChunks& other)
{
    if (other.mFirst == nullptr)
        return;
    other.mLast->next = mFirst;
    if (mFirst == nullptr)
        mLast = other.mLast;
    mFirst = std::exchange(other.mFirst, nullptr);
    mCount += std::exchange(other.mCount, 0);
}

/// In front of the four texts, or of nothing where `moved` has the entry.
struct EntryQueue::Record {
    kyLog::LogEntry* moved;
    unsigned long timeMs;
    std::int32_t level;
    std::uint32_t messageBytes;
    std::uint32_t subTypeBytes;
    std::uint32_t nameBytes;
    std::uint32_t threadIdBytes;
    std::uint32_t bytes;  // to the next record
};

EntryQueue::~EntryQueue()
{
    EntryChunks freed;
    release(freed);
}

bool EntryQueue::empty() const
{
    skipRead();
    return mRead == nullptr || mRead->begin == mRead->end;
}

void EntryQueue::skipRead() const
{
    if (mRead == nullptr)
        mRead = mFirst;
    while (mRead != nullptr && mRead->begin == mRead->end && mRead->next != nullptr)
        mRead = mRead->next;
}

void EntryQueue::add(kyLog::LogEntry& entry, EntryChunks& chunks)
{
    constexpr std::size_t mostCopied = 4096;
    const std::string* const texts[] = {&entry.message, &entry.subType, &entry.systemLogName,
                                        &entry.threadId};
    std::size_t textBytes = 0;
    for (const std::string* const text : texts)
        textBytes += text->size();
    std::unique_ptr<kyLog::LogEntry> moved;
    if (textBytes > mostCopied)
        moved = std::make_unique<kyLog::LogEntry>();
    const std::size_t unaligned = sizeof(Record) + (moved ? 0 : textBytes);
    const std::size_t bytes = (unaligned + alignof(Record) - 1) & ~(alignof(Record) - 1);
    if (mLast == nullptr || mLast->end + bytes > Chunk::sBytes) {
        Chunk* const chunk = chunks.take();
        (mLast == nullptr ? mFirst : mLast->next) = chunk;
        mLast = chunk;
    }
    char* to = mLast->bytes + mLast->end;
    Record* const record = new (to) Record{
        moved.get(),
        entry.timeMs,
        entry.level,
        static_cast<std::uint32_t>(entry.message.size()),
        static_cast<std::uint32_t>(entry.subType.size()),
        static_cast<std::uint32_t>(entry.systemLogName.size()),
        static_cast<std::uint32_t>(entry.threadId.size()),
        static_cast<std::uint32_t>(bytes),
    };
    to += sizeof(Record);
    if (moved) {
        *moved = std::move(entry);
        static_cast<void>(moved.release());
    } else {
        for (const std::string* const text : texts)
            to = std::copy(text->begin(), text->end(), to);
    }
    // Now it is there.
    std::atomic_signal_fence(std::memory_order_release);
    mLast->end += record->bytes;
}

const EntryQueue::Record& EntryQueue::record() const
{
    skipRead();
    return *std::launder(reinterpret_cast<const Record*>(mRead->bytes + mRead->begin));
}

EntryView EntryQueue::front() const
{
    const Record& found = record();
    if (found.moved != nullptr)
        return EntryView(*found.moved);
    EntryView view;
    view.timeMs = found.timeMs;
    view.level = found.level;
    const char* text = reinterpret_cast<const char*>(&found + 1);
    const auto next = [&](std::uint32_t bytes) {
        return std::string_view(std::exchange(text, text + bytes), bytes);
    };
    view.message = next(found.messageBytes);
    view.subType = next(found.subTypeBytes);
    view.systemLogName = next(found.nameBytes);
    view.threadId = next(found.threadIdBytes);
    return view;
}

void EntryQueue::pop()
{
    const Record& found = record();
    mRead->begin += found.bytes;
    delete found.moved;
}

void EntryQueue::swap(EntryQueue& other)
{
    std::swap(mFirst, other.mFirst);
    std::swap(mLast, other.mLast);
    std::swap(mRead, other.mRead);
}

void EntryQueue::splice(EntryQueue& other)
{
    if (other.mFirst == nullptr)
        return;
    (mLast == nullptr ? mFirst : mLast->next) = other.mFirst;
    mLast = other.mLast;
    other.mFirst = nullptr;
    other.mLast = nullptr;
    other.mRead = nullptr;
}

void EntryQueue::moveTo(std::list<kyLog::LogEntry>& entries)
{
    for (; !empty(); pop()) {
        // Whole before it counts, for a crash handler that goes on here.
        std::list<kyLog::LogEntry> one(1);
        kyLog::LogEntry& entry = one.front();
        const EntryView view = front();
        entry.message = view.message;
        entry.subType = view.subType;
        entry.systemLogName = view.systemLogName;
        entry.threadId = view.threadId;
        entry.timeMs = view.timeMs;
        entry.level = view.level;
        entries.splice(entries.end(), one);
    }
}

void EntryQueue::release(EntryChunks& chunks)
{
    while (!empty())
        pop();
    while (mFirst != nullptr)
        chunks.keep(std::exchange(mFirst, mFirst->next));
    mLast = nullptr;
    mRead = nullptr;
}

}  // namespace ky::impl

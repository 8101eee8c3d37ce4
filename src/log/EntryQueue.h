#pragma once

#include "ky/kyLog.h"

#include <cstddef>
#include <list>
#include <memory>
#include <string_view>

namespace ky::impl {

/// What the writer needs of an entry. The texts are borrowed.
struct EntryView {
    EntryView() = default;
    explicit EntryView(const kyLog::LogEntry& entry);

    std::string_view message;
    std::string_view subType;
    std::string_view systemLogName;
    std::string_view threadId;
    unsigned long timeMs = 0;
    int level = kyLog::Suppressed;
};

/// Memory for queued entries, used again by one queue when another has been emptied.
class EntryChunks {
public:
    struct Chunk {
        static constexpr std::size_t sBytes =
            65536 - 64;  // with the rest and the allocator's own, 64 KiB

        Chunk* next = nullptr;
        std::size_t begin = 0;  // of what is still to be read
        std::size_t end = 0;
        alignas(16) char bytes[sBytes];
    };

    EntryChunks() = default;
    ~EntryChunks() { trim(0); }
    EntryChunks(const EntryChunks&) = delete;
    EntryChunks& operator=(const EntryChunks&) = delete;

    /// A kept one or a new one, empty.
    Chunk* take();
    void keep(Chunk* chunk);

    /// Frees what is more than `most`.
    void trim(std::size_t most);

    /// Takes all of `other`.
    void splice(EntryChunks& other);

private:
    Chunk* mFirst = nullptr;
    Chunk* mLast = nullptr;
    std::size_t mCount = 0;
};

/// Entries one behind the other in a few large blocks: the memory that a producer writes and the
/// writer reads is the text and little more, and none of it goes through the allocator, whose lock
/// and whose cold memory would cost more than all else.
///
/// For one thread at a time. A crash handler that has interrupted `add` may read and take away what
/// was there before, and the interrupted call may go on after that.
class EntryQueue {
public:
    EntryQueue() = default;
    ~EntryQueue();
    EntryQueue(const EntryQueue&) = delete;
    EntryQueue& operator=(const EntryQueue&) = delete;

    bool empty() const;

    /// Copies a short entry and moves a long one out of `entry`.
    void add(kyLog::LogEntry& entry, EntryChunks& chunks);

    /// Only while not empty.
    EntryView front() const;
    void pop();

    void swap(EntryQueue& other);

    /// Moves all of `other` behind what is here.
    void splice(EntryQueue& other);

    /// Takes everything out and appends it to `entries`.
    void moveTo(std::list<kyLog::LogEntry>& entries);

    /// Drops what is left and hands the memory back.
    void release(EntryChunks& chunks);

private:
    using Chunk = EntryChunks::Chunk;
    struct Record;

    const Record& record() const;
    void skipRead() const;

    // The first chunk with something to read is looked for from mFirst on; those before it are
    // kept until `release`, since an interrupted `add` may still point at the last of them.
    Chunk* mFirst = nullptr;
    Chunk* mLast = nullptr;
    mutable Chunk* mRead = nullptr;
};

}  // namespace ky::impl

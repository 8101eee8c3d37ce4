#include "ky/kyLogObject.h"

#include "ky/kySystemUtils.h"

#include "frame/LogLine.h"
#include "frame/ThreadId.h"
#include "frame/Undisturbed.h"
#include "log/EntryCache.h"

#include <charconv>
#include <iostream>
#include <iterator>
#include <new>

#include <cerrno>
#include <cstdint>

namespace ky {
namespace {

// Most messages fit, and growing in steps from an empty string would cost more than all the rest.
constexpr std::size_t sUsualMessageBytes = 63;
constexpr int sStreamPrecision = 6;

}  // namespace

void kyLogObject::begin(int level, const char* subType, const char* systemLogName)
{
    const int savedErrno = errno;
    new (&mEntry) std::list<kyLog::LogEntry>();
    impl::TakeEntry(mEntry);
    mActive = true;
    mLog = kyLog::Instance();
    kyLog::LogEntry& entry = mEntry.front();
    entry.level = level;
    entry.timeMs = static_cast<unsigned long>(kySystemUtils::GetMSecElapsedSinceEpoch());
    if (mLog != nullptr && mLog->mEnabled[kyLog::Debug].load(std::memory_order_relaxed))
        entry.threadId = impl::CurrentThreadIdText();
    if (subType != nullptr)
        entry.subType = subType;
    if (systemLogName != nullptr)
        entry.systemLogName = systemLogName;
    errno = savedErrno;
}

void kyLogObject::emit() noexcept
{
    const impl::Undisturbed undisturbed;
    mActive = false;
    if (mInserted) {
        kyLog::LogEntry& entry = mEntry.front();
        if (mLog != kyLog::Instance())
            mLog = nullptr;  // destroyed meanwhile
        const bool toSystemLog = !entry.systemLogName.empty();
        // The writer makes the prefix of every entry that it is given, so it is not made twice.
        if (toSystemLog || mLog == nullptr)
            entry.computeLogPrefix(true);
        if (toSystemLog)
            kyLog::WriteToSystemLog(entry, mLog == nullptr);
        if (mLog != nullptr) {
            mLog->writeBatch(mEntry, mFlushNow);
        } else if (!toSystemLog) {
            std::string line = impl::LineWithRoom(entry.prefix, entry.message);
            impl::WriteLine(std::cout, line);
        }
    }
    // Unless a custom handler has taken it.
    impl::KeepEntries(mEntry);
    mEntry.~list();
}

kyLogObject& kyLogObject::insert(std::string_view text)
{
    std::string& message = mEntry.front().message;
    if (!mInserted && message.capacity() < sUsualMessageBytes)
        message.reserve(sUsualMessageBytes);
    mInserted = true;
    message.append(text);
    return *this;
}

kyLogObject& kyLogObject::insertCharacter(char value)
{
    return insert(std::string_view(&value, 1));
}

kyLogObject& kyLogObject::insertAddress(const volatile void* address)
{
    if (address == nullptr)
        return insert("0");
    char text[32] = "0x";
    const auto number = reinterpret_cast<std::uintptr_t>(address);
    const auto end = std::to_chars(text + 2, std::end(text), number, 16).ptr;
    return insert({text, static_cast<std::size_t>(end - text)});
}

kyLogObject& kyLogObject::insertNumber(long value)
{
    char text[24];
    const auto end = std::to_chars(std::begin(text), std::end(text), value).ptr;
    return insert({text, static_cast<std::size_t>(end - text)});
}

kyLogObject& kyLogObject::insertNumber(unsigned long value)
{
    char text[24];
    const auto end = std::to_chars(std::begin(text), std::end(text), value).ptr;
    return insert({text, static_cast<std::size_t>(end - text)});
}

kyLogObject& kyLogObject::insertNumber(double value)
{
    char text[32];
    const auto end = std::to_chars(std::begin(text), std::end(text), value,
                                   std::chars_format::general, sStreamPrecision)
                         .ptr;
    return insert({text, static_cast<std::size_t>(end - text)});
}

kyLogObject& kyLogObject::insertNumber(long double value)
{
    char text[32];
    const auto end = std::to_chars(std::begin(text), std::end(text), value,
                                   std::chars_format::general, sStreamPrecision)
                         .ptr;
    return insert({text, static_cast<std::size_t>(end - text)});
}

kyLogObject& kyLogObject::operator<<(SystemError error)
{
    return mActive ? insert(error.toString()) : *this;
}

}  // namespace ky

#pragma once

#include "ky/SystemError.h"
#include "ky/kyExport.h"
#include "ky/kyLog.h"

#include <list>
#include <string>
#include <string_view>
#include <type_traits>

namespace ky {

/// Composes one message, stream-style, and hands it to the log when it is destroyed:
///
///     kyLogObject(kyLog::Warning, "net") << "lost " << count << " packets";
///
/// A disabled level costs one test of a flag. Nothing inserted, nothing written; an empty text
/// counts as something. Without a log instance the line goes to standard output or, with a
/// system-log name, to the system log and standard error. Numbers look as in a stream of the
/// classic locale with its defaults. Leaves `errno` as it was. Each object belongs to one thread.
/// Not for signal handlers: composing a message allocates.
///
/// Running out of memory in the destructor ends the program.
class KY_API kyLogObject {
public:
    /// `level` is a `kyLog::EntryLevel`; others are written as "UNKNOWN". The names are copied,
    /// null stands for none.
    explicit kyLogObject(int level, const char* subType = nullptr,
                         const char* systemLogName = nullptr)
    {
        if (kyLog::IsLevelEnabled(level))
            begin(level, subType, systemLogName);
    }
    ~kyLogObject()
    {
        if (mActive)
            emit();
    }
    kyLogObject(const kyLogObject&) = delete;
    kyLogObject& operator=(const kyLogObject&) = delete;

    /// Null prints "[NullPtr]".
    kyLogObject& operator<<(const char* text)
    {
        // Inline, so that the length of a literal is known when it is compiled.
        if (!mActive)
            return *this;
        return insert(text != nullptr ? std::string_view(text) : "[NullPtr]");
    }
    kyLogObject& operator<<(const signed char* text)
    {
        return *this << reinterpret_cast<const char*>(text);
    }
    kyLogObject& operator<<(const unsigned char* text)
    {
        return *this << reinterpret_cast<const char*>(text);
    }
    kyLogObject& operator<<(std::string_view text) { return mActive ? insert(text) : *this; }
    kyLogObject& operator<<(const std::string& text) { return mActive ? insert(text) : *this; }

    /// 0 or 1. For `bool` alone: every pointer without an inserter of its own converts to it.
    template <typename Bool, std::enable_if_t<std::is_same_v<Bool, bool>, int> = 0>
    kyLogObject& operator<<(Bool value)
    {
        return mActive ? insertNumber(value ? 1L : 0L) : *this;
    }

    /// The byte itself.
    kyLogObject& operator<<(char value) { return mActive ? insertCharacter(value) : *this; }
    kyLogObject& operator<<(signed char value) { return *this << static_cast<char>(value); }
    kyLogObject& operator<<(unsigned char value) { return *this << static_cast<char>(value); }

    /// In decimal.
    kyLogObject& operator<<(short value) { return *this << static_cast<long>(value); }
    kyLogObject& operator<<(int value) { return *this << static_cast<long>(value); }
    kyLogObject& operator<<(long value) { return mActive ? insertNumber(value) : *this; }
    kyLogObject& operator<<(long long value) { return *this << static_cast<long>(value); }
    kyLogObject& operator<<(unsigned short v) { return *this << static_cast<unsigned long>(v); }
    kyLogObject& operator<<(unsigned int v) { return *this << static_cast<unsigned long>(v); }
    kyLogObject& operator<<(unsigned long v) { return mActive ? insertNumber(v) : *this; }
    kyLogObject& operator<<(unsigned long long v) { return *this << static_cast<unsigned long>(v); }

    /// Six significant digits.
    kyLogObject& operator<<(float value) { return *this << static_cast<double>(value); }
    kyLogObject& operator<<(double value) { return mActive ? insertNumber(value) : *this; }
    kyLogObject& operator<<(long double value) { return mActive ? insertNumber(value) : *this; }

    /// What `SystemError::toString` gives.
    kyLogObject& operator<<(SystemError error);

    /// The address in hexadecimal, "0" for null. Wide and UTF-8 typed texts are refused, as
    /// are functions and members.
    kyLogObject& operator<<(const volatile void* address)
    {
        return mActive ? insertAddress(address) : *this;
    }
    kyLogObject& operator<<(const wchar_t*) = delete;
    kyLogObject& operator<<(const char16_t*) = delete;
    kyLogObject& operator<<(const char32_t*) = delete;
#ifdef __cpp_char8_t
    kyLogObject& operator<<(const char8_t*) = delete;
#endif

    /// Makes the destructor wait until the entry has reached its sinks. Never on the log's own
    /// thread.
    kyLogObject& setFlushNow(bool flushNow = true)
    {
        mFlushNow = flushNow;
        return *this;
    }

private:
    void begin(int level, const char* subType, const char* systemLogName);
    void emit() noexcept;
    kyLogObject& insert(std::string_view text);
    kyLogObject& insertCharacter(char value);
    kyLogObject& insertAddress(const volatile void* address);
    kyLogObject& insertNumber(long value);
    kyLogObject& insertNumber(unsigned long value);
    kyLogObject& insertNumber(double value);
    kyLogObject& insertNumber(long double value);

    bool mActive = false;  // the rest below is in use
    bool mInserted = false;
    bool mFlushNow = false;
    kyLog* mLog = nullptr;
    // The entry is born in the list node in which it travels, and only for an enabled level.
    union {
        std::list<kyLog::LogEntry> mEntry;
    };
};

}  // namespace ky

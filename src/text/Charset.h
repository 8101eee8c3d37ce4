#pragma once

#include "ky/kyStringUtils.h"

#include <string>

#include <iconv.h>
#include <cstddef>

namespace ky::impl {

/// Whether a conversion can give something. One load; before initialisation, after termination and
/// in static destructors too.
inline bool IsStringUtilsInitialized() noexcept
{
    return __atomic_load_n(&kyStringUtils::msThreadContent, __ATOMIC_ACQUIRE) != nullptr;
}

/// The local 8-bit set, by its iconv name, as the thread that opened its converters last found it.
/// Empty before the first did.
std::string GetProcessCodeset();

/// Closes what the calling thread has opened; it opens it anew when it converts again. For a thread
/// that outlives the string utilities, whose converters nobody else could close.
void CloseConvertersOfThisThread();

/// One iconv handle. For one thread at a time.
class Converter {
public:
    Converter() = default;
    ~Converter();
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    /// Once at most. A failure is lasting: every conversion then fails.
    void open(const std::string& targetCode, const std::string& sourceCode);

    /// Finds out what `copiesAscii` tells.
    void probeAscii();

    /// Whether a text of bytes below 0x80 converts to itself, whatever the order of its bytes.
    /// False before the probe.
    bool copiesAscii() const { return mCopiesAscii; }

    /// Whether valid UTF-8 converts to itself.
    bool copiesUtf8() const { return mCopiesUtf8; }

    /// Converts in one iconv(3) call from the initial shift state. Returns the bytes written, or
    /// `sFailed` for whatever reason the call has failed.
    std::size_t convert(const char* input, std::size_t inputBytes, char* output,
                        std::size_t outputBytes);

    static constexpr std::size_t sFailed = static_cast<std::size_t>(-1);

private:
    iconv_t mHandle = reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)
    bool mCopiesAscii = false;
    bool mCopiesUtf8 = false;
    bool mKeepsNoState = false;  // between two calls that succeed
    bool mIsAtStart = false;     // in the initial state, for certain
};

}  // namespace ky::impl

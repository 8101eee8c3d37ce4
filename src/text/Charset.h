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

/// One iconv handle. For one thread at a time.
class Converter {
public:
    Converter() = default;
    ~Converter();
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    /// Once at most. A failure is lasting: every conversion then fails.
    void open(const std::string& targetCode, const std::string& sourceCode);

    /// Whether a text of bytes below 0x80 converts to itself, whatever the order of its bytes.
    bool copiesAscii() const { return mCopiesAscii; }

    /// Converts in one iconv(3) call from the initial shift state. Returns the bytes written, or
    /// `sFailed` for whatever reason the call has failed.
    std::size_t convert(const char* input, std::size_t inputBytes, char* output,
                        std::size_t outputBytes);

    static constexpr std::size_t sFailed = static_cast<std::size_t>(-1);

private:
    bool probeAscii();

    iconv_t mHandle = reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)
    bool mCopiesAscii = false;
};

}  // namespace ky::impl

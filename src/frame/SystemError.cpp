#include "ky/SystemError.h"

#include "frame/SystemErrorText.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace ky {
namespace {

struct NamedError {
    int code;
    const char* name;
};

constexpr NamedError sNamedErrors[] = {
#include "frame/SystemErrorNames.inc"
};

constexpr int sLargestCode = 133;
constexpr const char* sUnknownName = "UNKNOWN_ENUM";

// Names by error number. A row beyond the end does not compile.
constexpr auto sNames = [] {
    std::array<const char*, sLargestCode + 1> names{};
    names.fill(sUnknownName);
    for (const NamedError& error : sNamedErrors)
        names[static_cast<std::size_t>(error.code)] = error.name;
    return names;
}();

const char* SymbolicName(int code)
{
    if (code < 0 || code > sLargestCode)
        return sUnknownName;
    return sNames[static_cast<std::size_t>(code)];
}

}  // namespace

void impl::PutOnOneLine(std::string& text)
{
    std::size_t length = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
            ++i;
        text[length++] = text[i] == '\n' ? ' ' : text[i];
    }
    text.resize(length);
}

SystemError::SystemError(int code) : mCode(code) {}

std::string SystemError::toString() const
{
    const int savedErrno = errno;
    // The GNU form of strerror_r(3): the text of strerror, without its buffer shared by threads.
    char unknownError[256];
    const char* const description = ::strerror_r(mCode, unknownError, sizeof unknownError);

    std::string body = "(" + std::to_string(mCode) + ") ";
    body += SymbolicName(mCode);
    body += ' ';
    body += description;
    impl::PutOnOneLine(body);
    std::string text = "System error : '" + body + "'";
    errno = savedErrno;
    return text;
}

}  // namespace ky

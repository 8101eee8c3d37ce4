#include "ky/SystemError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include <dlfcn.h>

namespace {
const char* sNextDescription = nullptr;  // null: what the system says
}  // namespace

/// Stands before the C library's function, which neither breaks lines nor fails today.
extern "C" char* strerror_r(int code, char* buffer, std::size_t size) noexcept
{
    static const auto systemFunction =
        reinterpret_cast<char* (*)(int, char*, std::size_t)>(::dlsym(RTLD_NEXT, "strerror_r"));
    if (sNextDescription == nullptr)
        return systemFunction(code, buffer, size);
    errno = EILSEQ;
    return const_cast<char*>(std::exchange(sNextDescription, nullptr));
}

using ky::SystemError;

TEST(SystemError, PutsNumberNameAndTheDescriptionOfTheSystemOnOneLine)
{
    // Where the system has two names or none, ours; beside the range of numbers too.
    const std::map<int, std::string> own = {{0, "UNKNOWN_ENUM"},
                                            {11, "EAGAIN/EWOULDBLOCK"},
                                            {35, "EDEADLK/EDEADLOCK"},
                                            {95, "UNKNOWN_ENUM"}};
    for (int code = -7; code <= 140; ++code) {
        const char* const systemName = ::strerrorname_np(code);
        const std::string name = own.count(code) != 0    ? own.at(code)
                                 : systemName != nullptr ? systemName
                                                         : "UNKNOWN_ENUM";
        EXPECT_EQ(SystemError(code).toString(), "System error : '(" + std::to_string(code) + ") " +
                                                    name + ' ' + std::strerror(code) + "'");
    }
}

TEST(SystemError, TurnsEachLineBreakIntoOneBlankAndNeitherReadsNorChangesErrno)
{
    errno = EPERM;
    sNextDescription = "a\r\nb\n\nc\rd\r\r\ne\r";
    EXPECT_EQ(SystemError().toString(), "System error : '(0) UNKNOWN_ENUM a b  c\rd\r e\r'");
    EXPECT_EQ(errno, EPERM);
}

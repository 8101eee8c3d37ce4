#include "ky/SystemError.h"

#include "frame/SystemErrorText.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include <dlfcn.h>

namespace {
const char* nextDescription = nullptr;  // null: what the system says
}  // namespace

/// Stands before the C library's function, which neither breaks lines nor fails today.
extern "C" char* strerror_r(int code, char* buffer, std::size_t size) noexcept
{
    static const auto systemFunction =
        reinterpret_cast<char* (*)(int, char*, std::size_t)>(::dlsym(RTLD_NEXT, "strerror_r"));
    if (nextDescription == nullptr)
        return systemFunction(code, buffer, size);
    errno = EILSEQ;
    return const_cast<char*>(std::exchange(nextDescription, nullptr));
}

namespace {

using ky::SystemError;

/// What stands between the number and the description of `code`.
std::string NameOf(int code)
{
    const std::string text = SystemError(code).toString();
    const std::string head = "System error : '(" + std::to_string(code) + ") ";
    EXPECT_EQ(text.substr(0, head.size()), head);
    const std::size_t end = text.find(' ', head.size());
    return end == std::string::npos ? text : text.substr(head.size(), end - head.size());
}

TEST(SystemError, NamesEveryNumberAsTheSystemHeadersDo)
{
    int withOwnRule = 0;
    for (int code = 1; code <= 133; ++code) {
        const char* const name = ::strerrorname_np(code);
        if (code == EAGAIN || code == EDEADLK || code == EOPNOTSUPP || name == nullptr) {
            ++withOwnRule;
            continue;
        }
        EXPECT_EQ(NameOf(code), name) << code;
    }
    EXPECT_EQ(withOwnRule, 5);
}

TEST(SystemError, KeepsItsOwnNamesWhereTheSystemHasTwoOrNone)
{
    const struct {
        int code;
        const char* name;
    } rows[] = {
        {11, "EAGAIN/EWOULDBLOCK"}, {35, "EDEADLK/EDEADLOCK"}, {95, "UNKNOWN_ENUM"},
        {0, "UNKNOWN_ENUM"},        {41, "UNKNOWN_ENUM"},      {58, "UNKNOWN_ENUM"},
        {134, "UNKNOWN_ENUM"},      {-1, "UNKNOWN_ENUM"},      {-2, "UNKNOWN_ENUM"},
        {INT_MAX, "UNKNOWN_ENUM"},  {INT_MIN, "UNKNOWN_ENUM"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(NameOf(row.code), row.name) << row.code;
}

TEST(SystemError, PutsNumberNameAndTheDescriptionOfTheSystemOnOneLine)
{
    EXPECT_EQ(SystemError(ENOENT).toString(),
              "System error : '(2) ENOENT No such file or directory'");
    for (const int code : {0, 11, 95, 133, 134, 5000, -7, INT_MIN}) {
        const std::string ending = std::string(" ") + std::strerror(code) + "'";
        const std::string text = SystemError(code).toString();
        ASSERT_GT(text.size(), ending.size());
        EXPECT_EQ(text.substr(text.size() - ending.size()), ending) << code;
    }
}

TEST(SystemError, NeitherReadsNorChangesErrno)
{
    errno = EPERM;
    const SystemError none;
    const std::string text = none.toString();
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(text, SystemError(0).toString());

    errno = ENOSPC;
    nextDescription = "changes errno";
    SystemError(1).toString();
    EXPECT_EQ(errno, ENOSPC);
}

TEST(SystemError, TurnsEachLineBreakOfADescriptionIntoOneBlank)
{
    const struct {
        const char* text;
        const char* expected;
    } rows[] = {
        {"", ""},          {"no break", "no break"}, {"a\nb", "a b"},
        {"a\r\nb", "a b"}, {"\r\n\n\r\n", "   "},    {"a\rb", "a\rb"},
        {"a\r", "a\r"},    {"a\r\r\nb", "a\r b"},    {"a\n\rb\n", "a \rb "},
    };
    for (const auto& row : rows) {
        std::string text = row.text;
        ky::impl::PutOnOneLine(text);
        EXPECT_EQ(text, row.expected) << ::testing::PrintToString(row.text);
    }
    nextDescription = "Operation\r\nnot\npermitted";
    EXPECT_EQ(SystemError(1).toString(), "System error : '(1) EPERM Operation not permitted'");
}

}  // namespace

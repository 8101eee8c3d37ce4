#include "SpelledCommand.h"

#include "Commands.h"
#include "StandardStreams.h"

#include <algorithm>
#include <string_view>

#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace ky::tool {
namespace {

constexpr const char* sVerb = "--become";
constexpr const char* sEndOfEnvironment = "--";
constexpr int sNotStarted = 127;
constexpr std::string_view sDigits = "0123456789abcdef";

/// '%' and bytes that are not ASCII as "%e9".
std::string Spell(const std::string& bytes)
{
    std::string spelled;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c != '%' && byte < 0x80)
            spelled += c;
        else
            (spelled += '%').append(1, sDigits[byte / 16]).append(1, sDigits[byte % 16]);
    }
    return spelled;
}

/// In place, since it only becomes shorter.
void Read(char* spelled)
{
    char* end = spelled;
    for (const char* next = spelled; *next != '\0'; ++next) {
        if (*next == '%' && next[1] != '\0' && next[2] != '\0') {
            *end++ = static_cast<char>(sDigits.find(next[1]) * 16 + sDigits.find(next[2]));
            next += 2;
        } else {
            *end++ = *next;
        }
    }
    *end = '\0';
}

/// The own environment with the entries, of which the last of a name counts.
std::vector<char*> Merged(char** entries, char** end)
{
    std::vector<char*> merged;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        merged.push_back(*entry);
    for (; entries != end; ++entries) {
        const std::string_view name(*entries, std::strcspn(*entries, "=") + 1);
        const auto isSame = [name](std::string_view entry) { return entry.starts_with(name); };
        const auto place = std::find_if(merged.begin(), merged.end(), isSame);
        if (place != merged.end())
            *place = *entries;
        else
            merged.push_back(*entries);
    }
    merged.push_back(nullptr);
    return merged;
}

[[noreturn]] void Fail(const std::string& what, const char* name, int error, int exitCode)
{
    PrintError(what + name, error);
    ::_exit(exitCode);
}

}  // namespace

std::vector<std::string> SpellCommand(const std::vector<std::string>& command,
                                      const std::vector<std::string>& environment,
                                      const std::string& folder)
{
    std::vector<std::string> words = {"/proc/self/exe", sVerb, Spell(folder)};
    for (const std::string& entry : environment)
        words.push_back(Spell(entry));
    words.emplace_back(sEndOfEnvironment);
    for (const std::string& word : command)
        words.push_back(Spell(word));
    return words;
}

void BecomeSpelledCommand(char** argv)
{
    if (argv[0] == nullptr || argv[1] == nullptr || std::strcmp(argv[1], sVerb) != 0)
        return;
    char** const folder = argv + 2;
    char** end = folder;
    for (; *end != nullptr; ++end)
        Read(*end);
    char** const entries = std::min(folder + 1, end);
    char** const mark = std::find_if(
        entries, end, [](const char* word) { return std::strcmp(word, sEndOfEnvironment) == 0; });
    if (end - mark < 2)
        return;
    if (**folder != '\0' && ::chdir(*folder) != 0)
        Fail("Cannot enter ", *folder, errno, sFailure);
    char** const command = mark + 1;
    ::execvpe(*command, command, Merged(entries, mark).data());
    Fail("Cannot start ", *command, errno, sNotStarted);
}

}  // namespace ky::tool

#include "ky/kyLog.h"
#include "ky/kyProcess.h"

#include <exception>
#include <utility>

namespace ky {
namespace {

/// False for a quote inside a plain word and for a quoted word without end.
bool Split(const std::string& line, std::vector<std::string>& words)
{
    enum class Place { Between, InWord, InQuotes } place = Place::Between;
    char previous = '\0';
    for (const char c : line) {
        if (place == Place::InQuotes) {
            if (c != '"')
                words.back() += c;
            else if (previous == '\\')
                words.back().back() = c;
            else
                place = Place::Between;
        } else if (c == '"') {
            if (place == Place::InWord)
                return false;
            place = Place::InQuotes;
            words.emplace_back();
        } else if (c == ' ' || c == '\t') {
            place = Place::Between;
        } else {
            if (place == Place::Between)
                words.emplace_back();
            place = Place::InWord;
            words.back() += c;
        }
        previous = c;
    }
    return place != Place::InQuotes;
}

/// Where there is no memory for it, the line goes missing: the split throws nothing.
template <typename... Texts>
void LogFailure(const Texts&... texts) noexcept
{
    try {
        (kyLogObject(kyLog::Critical) << ... << texts);
    } catch (const std::exception&) {
        // The result tells that the split has failed.
    }
}

}  // namespace

bool kyProcess::SplitCommandLine(const std::string& commandLine, std::string& program,
                                 std::vector<std::string>& arguments)
{
    std::vector<std::string> words;
    try {
        if (!Split(commandLine, words)) {
            words.clear();
            LogFailure("Fail to split command line : '", commandLine, "' : Bad command line");
        }
    } catch (const std::exception&) {
        words.clear();
        LogFailure("Invalid command line : ", commandLine);
    }
    program.clear();
    arguments.clear();
    if (words.empty() || words.front().empty())
        return false;
    program = std::move(words.front());
    words.erase(words.begin());
    arguments = std::move(words);
    return true;
}

}  // namespace ky

#include "process/Environment.h"

#include "text/LocalPath.h"

#include <string_view>
#include <unordered_map>
#include <utility>

#include <unistd.h>

namespace ky::impl {
namespace {

struct Setting {
    const std::string* entry = nullptr;
    bool isPlaced = false;
};
using Settings = std::unordered_map<std::string_view, Setting>;

/// Up to the "="; the end of the map for what has none.
Settings::iterator Find(Settings& settings, std::string_view entry)
{
    const std::size_t end = entry.find('=');
    return end == std::string_view::npos ? settings.end() : settings.find(entry.substr(0, end));
}

/// Own values are taken as bytes: there and back through UTF-8 would lose those that do not
/// convert, in the C locale every one that is not ASCII.
std::vector<std::string> Merge(const std::vector<std::string>& own,
                               const std::vector<std::string>& entries)
{
    Settings settings;
    for (const std::string& entry : entries)
        if (const std::size_t end = entry.find('='); end != std::string::npos)
            settings[std::string_view(entry).substr(0, end)].entry = &entry;

    std::vector<std::string> merged;
    const auto place = [&](const std::string& entry) {
        const auto setting = Find(settings, entry);
        if (setting == settings.end())
            merged.push_back(entry);
        else if (!std::exchange(setting->second.isPlaced, true))
            merged.push_back(*setting->second.entry);
    };
    for (const std::string& entry : own)
        place(entry);
    for (const std::string& entry : entries)
        place(entry);
    return merged;
}

}  // namespace

std::vector<std::string> OwnEnvironment()
{
    std::vector<std::string> entries;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        entries.emplace_back(*entry);
    return entries;
}

std::vector<std::string> ChildEnvironment(const std::vector<std::string>& entriesUtf8, bool merge)
{
    if (entriesUtf8.empty())
        return OwnEnvironment();
    std::vector<std::string> entries;
    for (const std::string& entryUtf8 : entriesUtf8)
        if (std::string entry = ToLocalText(entryUtf8); !entry.empty())
            entries.push_back(std::move(entry));
    return merge ? Merge(OwnEnvironment(), entries) : entries;
}

}  // namespace ky::impl

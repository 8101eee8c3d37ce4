#include "Commands.h"
#include "LocalText.h"

#include "ky/kyDirUtils.h"
#include "ky/kyIniFile.h"
#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ky::tool {
namespace {

using Map = kyVariant::kyVariantMapImpl;

constexpr const char* sEscapes[] = {"\\n", "\\r", "\\t", "\\\""};

struct Options {
    std::string file;
    std::string key;
    std::string value;
    std::vector<std::string> files;
};

bool Fail(const std::string& message)
{
    std::cerr << "ky: " + message + "\n";
    return false;
}

bool HasOuterSpace(std::string_view text)
{
    constexpr std::string_view space = " \t\n\v\f\r";
    return !text.empty() && (space.find(text.front()) != std::string_view::npos ||
                             space.find(text.back()) != std::string_view::npos);
}

/// Whether a saved text is read as the same one. Without a double quote in it no escape is undone,
/// and with one all are, whatever they stood for.
bool IsKept(const std::string& text)
{
    if (text.find('"') == std::string::npos)
        return text.find_first_of("\\\n\r\t") == std::string::npos && !HasOuterSpace(text);
    return std::none_of(std::begin(sEscapes), std::end(sEscapes),
                        [&](const char* escape) { return text.find(escape) != std::string::npos; });
}

/// The library while a file is at work, with its messages on standard error.
class Session {
public:
    explicit Session(std::string file) : mName(std::move(file))
    {
        initializeKySystem(InitType::Light, false);
        mPath = ToUtf8(mName);
        kyLog::Instance()->setEchoToConsole(false);
        kyLog::Instance()->installCustomHandler(&Session::Print, this);
    }
    ~Session() { terminateKySystem(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool load(Map& map) const { return LoadIniFile(mPath, map); }
    bool loadIfThere(Map& map) const { return !kyDirUtils::FileExistsUtf8(mPath) || load(map); }

    /// Rather not at all than with another value changed on the way.
    bool save(const Map& map) const
    {
        // No paths here: those of a deep file would take more than all else.
        std::vector<const Map*> open = {&map};
        while (!open.empty()) {
            const Map& next = *open.back();
            open.pop_back();
            for (const auto& [key, value] : next) {
                const std::string* const text = value.getString();
                if (text != nullptr && !IsKept(*text))
                    return Fail(mName + ": The format cannot keep the value of " + key);
                if (value.getMap() != nullptr)
                    open.push_back(value.getMap());
            }
        }
        return SaveIniFile(mPath, map, false);
    }

private:
    static void Print(std::list<kyLog::LogEntry>& batch, void* self)
    {
        const Session& session = *static_cast<const Session*>(self);
        for (const kyLog::LogEntry& entry : batch) {
            const bool hasName =
                !session.mPath.empty() && entry.message.find(session.mPath) != std::string::npos;
            static_cast<void>(Fail((hasName ? "" : session.mName + ": ") + entry.message));
        }
    }

    const std::string mName;
    std::string mPath;
};

/// Keys and values are UTF-8 in the file, whatever the terminal has.
std::string Utf8(const std::string& argument)
{
    return kyStringUtils::UnknownEncodingToUtf8(argument, '?');
}

/// The path of a key: those of the section "General" are at the top.
std::string KeyPath(const std::string& argument)
{
    constexpr std::string_view general = "General/";
    const std::string path = Utf8(argument);
    const bool isGeneral =
        path.compare(0, general.size(), general) == 0 && path.rfind('/') + 1 == general.size();
    return isGeneral ? path.substr(general.size()) : path;
}

/// Whether such a line of a file would be read as that key in that section.
bool IsReadBack(const std::string& path)
{
    const std::size_t slash = path.rfind('/') + 1;
    const std::string key = path.substr(slash);
    return path.find('\n') == std::string::npos && !HasOuterSpace(key) &&
           key.find('=') == std::string::npos && key.find_first_of("[;") != 0;
}

bool Get(const Options& options)
{
    const Session session(options.file);
    Map map;
    if (!session.load(map))
        return false;
    const kyVariant* const value = map.findPathImpl(KeyPath(options.key));
    if (value == nullptr || value->getType() == kyVariant::Map)
        return Fail(options.file + ": There is no key " + options.key);
    std::cout << value->toString() << '\n';
    return true;
}

bool Set(const Options& options)
{
    const Session session(options.file);
    Map map;
    if (!session.loadIfThere(map))
        return false;
    const std::string path = KeyPath(options.key);
    kyVariant* const value = IsReadBack(path) ? map.editValuePath(path) : nullptr;
    if (value == nullptr)
        return Fail(options.file + ": No value can stand at " + options.key);
    *value = Utf8(options.value);
    return session.save(map);
}

bool Unset(const Options& options)
{
    const Session session(options.file);
    Map map;
    if (!session.load(map))
        return false;
    if (!map.removePath(KeyPath(options.key)))
        return Fail(options.file + ": There is no key " + options.key);
    return session.save(map);
}

/// One line, whatever the value holds.
void PrintLine(const std::string& path, std::string value)
{
    for (const auto& [what, with] :
         {std::pair("\\", "\\\\"), std::pair("\n", "\\n"), std::pair("\r", "\\r")})
        kyStringUtils::ReplaceAllOccurrences(value, what, with);
    std::cout << path << '=' << value << '\n';
}

bool List(const Options& options)
{
    const Session session(options.file);
    Map map;
    if (!session.load(map))
        return false;
    const Map* section = &map;
    std::string prefix;
    if (!options.key.empty() && options.key != "General") {
        prefix = Utf8(options.key) + '/';
        const kyVariant* const value = map.findPathImpl(Utf8(options.key));
        section = value != nullptr ? value->getMap() : nullptr;
    }
    if (section == nullptr)
        return Fail(options.file + ": There is no section " + options.key);
    std::map<std::string, kyVariant> flat;
    section->toFlattenMap(flat);
    for (const auto& [path, value] : flat)
        PrintLine(prefix + path, value.toString());
    return true;
}

bool Check(const Options& options)
{
    bool isGood = true;
    for (const std::string& file : options.files) {
        const Session session(file);
        Map map;
        isGood = session.load(map) && isGood;
    }
    return isGood;
}

}  // namespace

void AddIni(CLI::App& app, int& exitCode)
{
    auto* const ini = app.add_subcommand(
        "ini",
        "Read and change INI files\n"
        "A key of a section is SECTION/KEY. The exit code is 1 when the key is not there, a line "
        "of the file is wrong (which is told with its number) or the file cannot be read or "
        "written.");
    ini->require_subcommand(1);
    const auto options = std::make_shared<Options>();
    const auto add = [&](const char* name, const char* text, bool (*run)(const Options&)) {
        auto* const command = ini->add_subcommand(name, text);
        command->callback(
            [options, run, &exitCode] { exitCode = run(*options) ? sSuccess : sFailure; });
        return command;
    };
    CLI::App* const get = add("get", "Print the value of a key", Get);
    CLI::App* const set =
        add("set", "Give a key a value, and make the file when it is missing", Set);
    CLI::App* const unset = add("unset", "Remove a key, or a whole section", Unset);
    CLI::App* const list = add("list", "Print KEY=VALUE for every key, in order of the keys", List);
    CLI::App* const check = add("check", "Tell whether files are well formed", Check);
    for (CLI::App* const command : {get, set, unset, list})
        command->add_option("FILE", options->file, "An INI file")->required();
    for (CLI::App* const command : {get, set, unset})
        command->add_option("KEY", options->key, "A key, or SECTION/KEY")->required();
    set->add_option("VALUE", options->value, "Its text; one that begins with \"-\" goes behind --")
        ->required();
    list->add_option("SECTION", options->key, "Only the keys of this section and those below it");
    check->add_option("FILES", options->files, "INI files")->required();
    for (CLI::App* const command : {set, unset})
        command->footer(
            "The file is replaced whole, without its comments, in order of the keys, with numbers "
            "in their plain form and texts without quotes where they need none. It is left alone "
            "when that would change a text, as one with backslashes and without quotes. What "
            "others save meanwhile is lost: let each take its turn by\n"
            "  ky lock FILE.lock -- ky ini ...");
    list->footer(
        "A line end in a value is shown as \\n, a carriage return as \\r, a backslash as "
        "two.");
}

}  // namespace ky::tool

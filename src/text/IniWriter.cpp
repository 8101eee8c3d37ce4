#include "ky/kyLog.h"

#include "text/IniText.h"
#include "text/PathKeys.h"
#include "text/ScalarText.h"

#include <algorithm>
#include <array>

namespace ky {
namespace {

using kyVariantMapImpl = kyVariant::kyVariantMapImpl;

constexpr std::string_view sGeneral = "General";
constexpr std::string_view sNoPlaceKey = "avoidcrashkey";

/// The same walk as by recursion, which a deep map would drive into the end of the stack.
class Assignment {
public:
    Assignment(const kyVariantMapImpl& from, kyVariantMapImpl& to) : mTarget(to)
    {
        mOpen.push_back({from.begin(), from.end(), {}, &to, true, true});
    }

    void run()
    {
        while (!mOpen.empty()) {
            Level& level = mOpen.back();
            if (level.position == level.end) {
                mOpen.pop_back();
                continue;
            }
            const auto& [key, value] = *level.position++;
            if (const kyVariantMapImpl* const map = value.getMap())
                mOpen.push_back({map->begin(), map->end(), key, nullptr, false,
                                 level.isPath && impl::IsPath(key, '/')});
            else
                assign(key, value);
        }
    }

private:
    struct Level {
        kyVariantMapImpl::const_iterator position;
        kyVariantMapImpl::const_iterator end;
        std::string_view key;
        kyVariantMapImpl* target;  // null when there is no place for it
        bool isSettled;            // whether the target has been looked up
        bool isPath;               // whether the keys that lead here can name something
    };

    void assign(std::string_view key, const kyVariant& value)
    {
        // What has no path must not leave the maps that lead to it.
        const bool isPath = mOpen.back().isPath && impl::IsPath(key, '/');
        kyVariantMapImpl* const map = isPath ? target() : nullptr;
        kyVariant* slot = map != nullptr ? map->editValuePath(key) : nullptr;
        if (slot == nullptr)
            slot = mTarget.editValuePath(sNoPlaceKey);
        if (slot != nullptr)
            *slot = value;
        else
            kyLogObject(kyLog::Warning) << "No place in Ini file for key " << key;
    }

    /// Settled for the first value, so that maps without values leave none.
    kyVariantMapImpl* target()
    {
        auto level = mOpen.end() - 1;
        while (!level->isSettled)
            --level;
        for (; level + 1 != mOpen.end(); ++level) {
            Level& next = *(level + 1);
            next.target = level->target != nullptr ? level->target->editMapPath(next.key) : nullptr;
            next.isSettled = true;
        }
        return mOpen.back().target;
    }

    kyVariantMapImpl& mTarget;
    std::vector<Level> mOpen;
};

/// The letter behind the backslash of a byte that is escaped, 0 for the others.
constexpr std::array<char, 256> sEscapes = [] {
    std::array<char, 256> escapes = {};
    escapes['\\'] = '\\';
    escapes['\n'] = 'n';
    escapes['\r'] = 'r';
    escapes['\t'] = 't';
    escapes['"'] = '"';
    return escapes;
}();

char EscapeOf(char c)
{
    return sEscapes[static_cast<unsigned char>(c)];
}

void AppendString(std::string& out, const std::string& text)
{
    if (std::all_of(text.begin(), text.end(), [](char c) { return EscapeOf(c) == 0; })) {
        out += text;
        return;
    }
    // kept: without a double quote in it the value stands without quotes, where no escape is undone
    // by reading.
    const char* const quote = text.find('"') != std::string::npos ? "\"" : "";
    out += quote;
    for (const char c : text) {
        if (EscapeOf(c) == 0)
            out += c;
        else
            (out += '\\') += EscapeOf(c);
    }
    out += quote;
}

class IniWriter {
public:
    std::string write(const kyVariantMapImpl& map)
    {
        mText.reserve(65536);
        mText = "[General]\n";
        writeValues(map);
        const kyVariant* const general = map.find(sGeneral);
        const kyVariantMapImpl* const generalMap = general != nullptr ? general->getMap() : nullptr;
        if (generalMap != nullptr)
            writeGeneral(*generalMap, map);
        mOpen.push_back({map.begin(), map.end(), 0});
        while (!mOpen.empty())
            goOn(generalMap);
        return std::move(mText);
    }

private:
    struct Level {
        kyVariantMapImpl::const_iterator position;
        kyVariantMapImpl::const_iterator end;
        std::size_t pathSize;
    };

    void writeValue(const std::string& key, const kyVariant& value)
    {
        const std::size_t start = mText.size();
        mText.append(key) += '=';
        switch (value.getType()) {
            case kyVariant::String:
                AppendString(mText, *value.getString());
                break;
            case kyVariant::Integer:
                impl::AppendInteger(mText, value.toInteger());
                break;
            case kyVariant::Real:
                impl::AppendReal(mText, value.toReal());
                break;
            case kyVariant::Bool:
                mText += value.toBool() ? "true" : "false";
                break;
            default:
                mText.resize(start);
                kyLogObject(kyLog::Critical) << "saveVariantToIni unsupported variant type ("
                                             << value.getTypeName() << ") for key " << key;
                return;
        }
        mText += '\n';
    }

    /// Whether there are maps in it too.
    bool writeValues(const kyVariantMapImpl& map)
    {
        bool hasMaps = false;
        for (const auto& [key, value] : map) {
            if (value.getType() == kyVariant::Map)
                hasMaps = true;
            else
                writeValue(key, value);
        }
        return hasMaps;
    }

    /// A second line of the same path, or a section of the path of a value, would keep the file
    /// from being loaded.
    void writeGeneral(const kyVariantMapImpl& general, const kyVariantMapImpl& topLevel)
    {
        for (const auto& [key, value] : general) {
            if (value.getType() == kyVariant::Map)
                continue;
            if (topLevel.find(key) == nullptr)
                writeValue(key, value);
            else
                kyLogObject(kyLog::Warning) << "Key " << key
                                            << " of section General is not saved, the top level "
                                               "has it too";
        }
    }

    void goOn(const kyVariantMapImpl* general)
    {
        Level& level = mOpen.back();
        mPath.resize(level.pathSize);
        level.position = std::find_if(level.position, level.end, [](const auto& entry) {
            return entry.second.getType() == kyVariant::Map;
        });
        if (level.position == level.end) {
            mOpen.pop_back();
            return;
        }
        const auto& [key, value] = *level.position++;
        const kyVariantMapImpl& map = *value.getMap();
        mPath += key;
        if (&map != general && !writeSection(map))
            return;
        mPath += '/';
        mOpen.push_back({map.begin(), map.end(), mPath.size()});
    }

    /// Whether there are maps in it too.
    bool writeSection(const kyVariantMapImpl& map)
    {
        const std::size_t headerSize = mPath.size() + std::string_view("\n[]\n").size();
        const bool hasValues = std::any_of(map.begin(), map.end(), [](const auto& entry) {
            return entry.second.getType() != kyVariant::Map;
        });
        if (!hasValues && headerSize > mIdleRoom)
            return true;
        mIdleRoom -= hasValues ? 0 : headerSize;
        mText.append("\n[").append(mPath).append("]\n");
        return writeValues(map);
    }

    std::string mText;
    std::string mPath;
    std::vector<Level> mOpen;
    // What headers without values may still take. In a chain of maps each has the path of those
    // above it: 300,000 of them would take 90 GB to say nothing.
    std::size_t mIdleRoom = std::size_t{16} << 20;
};

}  // namespace

void impl::AssignValues(const kyVariantMapImpl& from, kyVariantMapImpl& to)
{
    Assignment(from, to).run();
}

bool impl::HasPlainPaths(const kyVariantMapImpl& map)
{
    std::vector<const kyVariantMapImpl*> open = {&map};
    while (!open.empty()) {
        const kyVariantMapImpl& next = *open.back();
        open.pop_back();
        for (const auto& [key, value] : next) {
            if (key.empty() || key.find('/') != std::string::npos)
                return false;
            const kyVariantMapImpl* const below = value.getMap();
            if (below == nullptr)
                continue;
            if (below->empty())
                return false;
            open.push_back(below);
        }
    }
    return true;
}

std::string impl::WriteIni(const kyVariantMapImpl& map)
{
    return IniWriter().write(map);
}

}  // namespace ky

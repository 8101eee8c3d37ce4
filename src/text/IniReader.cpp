#include "ky/kyStringUtils.h"

#include "text/Ascii.h"
#include "text/IniText.h"
#include "text/PathKeys.h"
#include "text/ScalarText.h"

#include <cstring>

namespace ky {
namespace {

using kyVariantMapImpl = kyVariant::kyVariantMapImpl;

using impl::TrimAsciiSpace;

std::string Unquoted(std::string_view quoted)
{
    std::string text(quoted.substr(1, quoted.size() - 2));
    if (text.find('\\') == std::string::npos)
        return text;
    // kept: one pass after the other, so that of an escaped backslash and "n" a backslash and a
    // line end remain.
    constexpr const char* escapes[][2] = {
        {"\\\"", "\""}, {"\\t", "\t"}, {"\\r", "\r"}, {"\\n", "\n"}, {"\\\\", "\\"}};
    for (const auto& [escape, meaning] : escapes)
        kyStringUtils::ReplaceAllOccurrences(text, escape, meaning);
    return text;
}

class IniReader {
public:
    IniReader(std::string& text, kyVariantMapImpl& out) : mText(text), mOut(out), mSectionMap(&out)
    {}

    bool read(std::string& problem)
    {
        constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
        char* const end = mText.data() + mText.size();
        char* begin = mText.data();
        if (std::string_view(mText).substr(0, byteOrderMark.size()) == byteOrderMark)
            begin += byteOrderMark.size();
        while (begin != end) {
            auto* lineEnd =
                static_cast<char*>(std::memchr(begin, '\n', static_cast<std::size_t>(end - begin)));
            lineEnd = lineEnd != nullptr ? lineEnd : end;
            ++mLineNumber;
            if (!readLine(TrimAsciiSpace({begin, static_cast<std::size_t>(lineEnd - begin)}),
                          problem))
                return false;
            begin = lineEnd != end ? lineEnd + 1 : end;
        }
        return true;
    }

private:
    bool readLine(std::string_view line, std::string& problem)
    {
        if (line.empty() || line.front() == ';')
            return true;
        if (line.front() == '[' && line.back() == ']') {
            beginSection(line.substr(1, line.size() - 2));
            return true;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            problem = "Invalid line (" + std::to_string(mLineNumber) + ") ";
            problem.append(line) += " in Ini file";
            return false;
        }
        return readKey(TrimAsciiSpace(line.substr(0, equals)),
                       TrimAsciiSpace(line.substr(equals + 1)), problem);
    }

    /// A section without keys leaves no map, so that is made for the first key.
    void beginSection(std::string_view name)
    {
        mSection = name == "General" ? std::string_view() : name;
        mSectionMap = mSection.empty() ? &mOut : nullptr;
    }

    bool readKey(std::string_view key, std::string_view value, std::string& problem)
    {
        std::string_view name = key;
        kyVariantMapImpl* const map = impl::IsPath(key, '/') ? findMap(name) : nullptr;
        if (map == nullptr) {
            problem = "Invalid key at line (" + std::to_string(mLineNumber) + ") ";
            problem.append(key) += " in Ini file";
            return false;
        }
        if (map->insert(name, parse(value)))
            return true;
        problem = "Duplicated key at line (" + std::to_string(mLineNumber) + ") ";
        problem.append(mSection).append(mSection.empty() ? "" : "/").append(key);
        problem += " in Ini file";
        return false;
    }

    /// The map that a key belongs to. `name` loses the keys of the maps that lead there.
    kyVariantMapImpl* findMap(std::string_view& name)
    {
        if (mSectionMap == nullptr)
            mSectionMap = mOut.editMapPath(mSection);
        const std::size_t slash = name.rfind('/');
        if (mSectionMap == nullptr || slash == std::string_view::npos)
            return mSectionMap;
        const std::string_view folder = name.substr(0, slash);
        name.remove_prefix(slash + 1);
        return mSectionMap->editMapPath(folder);
    }

    kyVariant parse(std::string_view value)
    {
        if (value.size() > 1 && value.front() == '"' && value.back() == '"')
            return Unquoted(value);
        // What follows is white space or the end of the text, which nobody looks at again.
        mText.data()[value.data() + value.size() - mText.data()] = '\0';
        return impl::ParseScalar(value, mLocale);
    }

    std::string& mText;
    kyVariantMapImpl& mOut;
    const locale_t mLocale = impl::CLocale();
    unsigned long mLineNumber = 0;
    std::string_view mSection;      // of the top level empty
    kyVariantMapImpl* mSectionMap;  // null while not looked up
};

}  // namespace

bool impl::ReadIni(std::string& text, kyVariantMapImpl& out, std::string& problem)
{
    return IniReader(text, out).read(problem);
}

}  // namespace ky

#include "ky/MimeTypeInfo.h"

#include "ky/kyDirUtils.h"

#include "text/Ascii.h"
#include "text/MimeTable.h"

#include <algorithm>
#include <map>

namespace ky {
namespace {

struct MimeTable {
    const MimeTypeInfo* find(const std::string& extension) const
    {
        const auto found = types.find(extension);
        return found != types.end() ? &found->second : nullptr;
    }

    const std::map<std::string, MimeTypeInfo> types = {
#include "text/MimeTypes.inc"
    };
    const MimeTypeInfo unknown{};
};

/// Never destroyed: static destructors of other modules may still hold references.
const MimeTable& Table()
{
    static const MimeTable* const sTable = new MimeTable;
    return *sTable;
}

}  // namespace

void impl::BuildMimeTable()
{
    Table();
}

const MimeTypeInfo& GetMimeTypeInfoFromFileNameOrExt(const std::string& fileNameOrExt)
{
    const MimeTable& table = Table();
    for (const int parts : {1, 2}) {
        const std::string extension = kyDirUtils::ExtractFileExtension(fileNameOrExt, true, parts);
        if (const MimeTypeInfo* const known = table.find(extension))
            return *known;
    }
    std::string whole = fileNameOrExt;
    std::transform(whole.begin(), whole.end(), whole.begin(), impl::ToAsciiLower);
    const MimeTypeInfo* const known = table.find(whole);
    return known != nullptr ? *known : table.unknown;
}

}  // namespace ky

#include "ky/MimeTypeInfo.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

using ky::GetMimeTypeInfoFromFileNameOrExt;
using ky::MimeTypeInfo;

namespace {

std::string Upper(std::string text)
{
    for (char& c : text)
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return text;
}

}  // namespace

TEST(MimeTypes, HoldEveryRowAsBareExtensionAndBehindANameInAnyCase)
{
    std::istringstream lines(ky::test::Content(KY_TESTS "/text/mime-types.txt"));
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string type;
        std::string flag;
        words >> type >> flag;
        for (std::string extension; words >> extension; ++count)
            for (const char* const before : {"", "a.", "caf\xc3\xa9.", "/x.zip/a.", "..\\a."})
                for (const std::string& name : {before + extension, before + Upper(extension)}) {
                    const MimeTypeInfo& found = GetMimeTypeInfoFromFileNameOrExt(name);
                    EXPECT_EQ(found.getMimeType(), type) << name;
                    EXPECT_EQ(found.getCompressible(),
                              flag == "Yes" ? MimeTypeInfo::Yes : MimeTypeInfo::No)
                        << name;
                }
    }
    EXPECT_EQ(count, 58);
}

TEST(MimeTypes, AreChosenByTheLastExtensionFirst)
{
    const std::pair<const char*, const char*> rows[] = {
        {"a.js.gz", "application/gzip"},
        {"..png", "image/png"},
        {".hidden.js.map", "application/json"},
        {"png/", ""},
        {"a.png\\", ""},
        {"a.png.", ""},
        {".png", ""},
        {"folder.png/a", ""},
        {"folder/png", ""},
        {"folder/.js.map", ""},
        {"a.png.unknown", ""},
        {"README", ""},
        {"", ""},
    };
    const MimeTypeInfo* const unknown = &GetMimeTypeInfoFromFileNameOrExt("unknown");
    for (const auto& [name, type] : rows) {
        const MimeTypeInfo& found = GetMimeTypeInfoFromFileNameOrExt(name);
        EXPECT_EQ(found.getMimeType(), type) << name;
        EXPECT_EQ(&found == unknown, *type == '\0') << name;
    }
    EXPECT_EQ(unknown->getCompressible(), MimeTypeInfo::Unknown);
}

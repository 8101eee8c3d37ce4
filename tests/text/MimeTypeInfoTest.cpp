#include "ky/MimeTypeInfo.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#include <cctype>

using ky::GetMimeTypeInfoFromFileNameOrExt;
using ky::MimeTypeInfo;

namespace {

std::string Upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

TEST(MimeTypes, HoldEveryRowAsBareExtensionAndBehindANameInAnyCase)
{
    const std::map<std::string, MimeTypeInfo::Compressible> flags = {{"Yes", MimeTypeInfo::Yes},
                                                                     {"No", MimeTypeInfo::No}};
    std::istringstream rows(ky::test::Content(KY_TESTS "/text/mime-types.txt"));
    std::string extension;
    std::string type;
    std::string flag;
    int count = 0;
    for (; rows >> extension >> type >> flag; ++count) {
        for (const char* const before : {"", "a.", "caf\xc3\xa9.", "A b.c.", "/x.zip/a.", "..\\a."})
            for (const std::string& name : {before + extension, before + Upper(extension)}) {
                const MimeTypeInfo& found = GetMimeTypeInfoFromFileNameOrExt(name);
                EXPECT_EQ(found.getMimeType(), type) << name;
                EXPECT_EQ(found.getCompressible(), flags.at(flag)) << name;
            }
    }
    EXPECT_EQ(count, 58);
}

TEST(MimeTypes, AreChosenByTheLastExtensionFirst)
{
    const std::pair<const char*, const char*> rows[] = {
        {"photo.JPG", "image/jpeg"},
        {"bundle.js.map", "application/json"},
        {"a.js.gz", "application/gzip"},
        {"a.js.map.txt", "text/plain"},
        {"folder.d/a.png", "image/png"},
        {"folder.d\\a.png", "image/png"},
        {"..png", "image/png"},
        {".hidden.js.map", "application/json"},
        {"png/", ""},
        {"a.png/", ""},
        {"a.png\\", ""},
        {"a.png.", ""},
        {".png", ""},
        {"folder.png/a", ""},
        {"folder/png", ""},
        {"folder/.js.map", ""},
        {"a.map", ""},
        {"a.png.unknown", ""},
        {"README", ""},
        {"", ""},
        {".", ""},
        {"a.png ", ""},
        {"a.\xe2\x84\xaa"
         "7z",
         ""},
    };
    const MimeTypeInfo* const unknown = &GetMimeTypeInfoFromFileNameOrExt("unknown");
    for (const auto& [name, type] : rows) {
        const MimeTypeInfo& found = GetMimeTypeInfoFromFileNameOrExt(name);
        EXPECT_EQ(found.getMimeType(), type) << name;
        EXPECT_EQ(&found == unknown, *type == '\0') << name;
    }
    EXPECT_EQ(unknown->getCompressible(), MimeTypeInfo::Unknown);
    const std::string zero("png\0", 4);
    EXPECT_EQ(&GetMimeTypeInfoFromFileNameOrExt(zero), unknown);
}

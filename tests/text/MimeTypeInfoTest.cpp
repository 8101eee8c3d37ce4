#include "ky/MimeTypeInfo.h"

#include <gtest/gtest.h>

#include <string>

using ky::MimeTypeInfo;

TEST(MimeTypes, AreFoundByTheLastExtensionOrABareOne)
{
    const struct {
        std::string name;
        const char* type;
        MimeTypeInfo::Compressible compressible;
    } rows[] = {
        {"photo.JPG", "image/jpeg", MimeTypeInfo::No},
        {"js.map", "application/json", MimeTypeInfo::Yes},
        {"/x.zip/caf\xc3\xa9.gif", "image/gif", MimeTypeInfo::Yes},
        {"..\\a.wrz", "application/octet-stream", MimeTypeInfo::No},
        {"a.js.gz", "application/gzip", MimeTypeInfo::No},
        {".hidden.js.map", "application/json", MimeTypeInfo::Yes},
        {".png", "", MimeTypeInfo::Unknown},
        {"folder.png/png", "", MimeTypeInfo::Unknown},
        {"a.png.unknown", "", MimeTypeInfo::Unknown},
        {"", "", MimeTypeInfo::Unknown},
    };
    for (const auto& row : rows) {
        const MimeTypeInfo& found = ky::GetMimeTypeInfoFromFileNameOrExt(row.name);
        EXPECT_EQ(found.getMimeType(), row.type) << row.name;
        EXPECT_EQ(found.getCompressible(), row.compressible) << row.name;
    }
}

#pragma once

#include "ky/kyIniFile.h"

#include "support/Child.h"
#include "support/Library.h"

#include <string>
#include <string_view>
#include <utility>

namespace ky::test {

/// A file of settings in a folder of its own, and what the library logs.
struct IniFile : LightLibrary {
    using Map = kyVariant::kyVariantMapImpl;

    static Map Made(std::initializer_list<std::pair<const char*, kyVariant>> values)
    {
        Map map;
        for (const auto& [path, value] : values)
            *map.editValuePath(path) = value;
        return map;
    }

    /// What was logged meanwhile, without the prefix of the first line: a CRITICAL line is expected
    /// exactly when the call failed.
    std::string message(bool isGood)
    {
        const std::string text = console.take();
        EXPECT_EQ(text.starts_with("CRITICAL "), !isGood) << text;
        const std::size_t begin = text.find(" : ") + 3;
        return isGood || text.empty() ? text : text.substr(begin, text.size() - 1 - begin);
    }

    std::string load(std::string_view content)
    {
        folder.write("settings.ini", content);
        return message(LoadIniFile(path, map));
    }

    const TemporaryFolder folder;
    const std::string path = folder.path("settings.ini");
    Map map;
    CaughtStream console{std::cout};
};

}  // namespace ky::test

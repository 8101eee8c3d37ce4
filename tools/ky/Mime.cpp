#include "Commands.h"

#include "ky/MimeTypeInfo.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace ky::tool {
namespace {

/// One line for each name. Tells whether all types are known.
bool PrintTypes(const std::vector<std::string>& names)
{
    bool allKnown = true;
    for (const std::string& name : names) {
        const MimeTypeInfo& info = GetMimeTypeInfoFromFileNameOrExt(name);
        const bool isKnown = info.getCompressible() != MimeTypeInfo::Unknown;
        const bool isCompressible = info.getCompressible() == MimeTypeInfo::Yes;
        std::cout << (isKnown ? info.getMimeType() : "-") << '\t'
                  << (!isKnown         ? "-"
                      : isCompressible ? "compressible"
                                       : "compressed")
                  << '\t' << name << '\n';
        allKnown = allKnown && isKnown;
    }
    return allKnown;
}

}  // namespace

void AddMime(CLI::App& app, int& exitCode)
{
    auto* const command =
        app.add_subcommand("mime", "Print the MIME types that file names stand for");
    command->footer(
        "A line holds the type, \"compressible\" or \"compressed\", and the name, with a tab\n"
        "between. Only the name counts, no file is read. A type that is not known is \"-\", and\n"
        "makes the exit code 1.");
    const auto names = std::make_shared<std::vector<std::string>>();
    command->add_option("NAMES", *names, "File names, paths or bare extensions")->required();
    command->callback([names, &exitCode] { exitCode = PrintTypes(*names) ? sSuccess : sFailure; });
}

}  // namespace ky::tool

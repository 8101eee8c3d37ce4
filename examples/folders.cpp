// A working folder that never outlives its use: made with all its parents, filled, reported, and
// cleared without following the link in it.

#include "ky/kyDirUtils.h"
#include "ky/kySystem.h"

#include <iostream>
#include <string>

#include <unistd.h>

using ky::kyDirUtils;

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    const std::string root = kyDirUtils::JoinPath(kyDirUtils::GetTempFolderUtf8(),
                                                  "ky-example-" + std::to_string(::getpid()));
    const std::string work = kyDirUtils::SimplifyPath(root + "/./unpack/../work");
    bool isGood = kyDirUtils::MkpathUtf8(work + "/r\u00e9sum\u00e9s");

    std::string error;
    const std::string notes = kyDirUtils::GetTempFileUtf8(work, "notes-");
    isGood = isGood && kyDirUtils::CopyFileUtf8("/proc/version", notes, true, &error) &&
             ::symlink("/", (work + "/root").c_str()) == 0;
    ky::kyFileInfoUtf8 info;
    kyDirUtils::GetFileInfoUtf8(notes, info);
    std::cout << kyDirUtils::ExtractFileBaseName(notes) << " has " << info.size << " bytes\n";

    isGood = kyDirUtils::ClearFolderUtf8(root, true, &error) && isGood && info.size > 0;
    if (!isGood)
        std::cout << "failed: " << error << '\n';
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}

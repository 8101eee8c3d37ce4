// Settings of a program: defaults, what the user's file says over them, and a change that is saved
// without losing the keys that only the file has.

#include "ky/kyDirUtils.h"
#include "ky/kyIniFile.h"
#include "ky/kySystem.h"

#include <fstream>
#include <iostream>
#include <string>

using ky::kyDirUtils;
using Settings = ky::kyVariant::kyVariantMapImpl;

namespace {

/// The file's values go over the defaults path by path: a file has no say in what is not there.
bool ReadSettings(const std::string& path, Settings& settings)
{
    Settings file;
    if (!ky::LoadIniFile(path, file))
        return false;
    std::map<std::string, ky::kyVariant> values;
    file.toFlattenMap(values);
    for (const auto& [key, value] : values)
        if (ky::kyVariant* const setting = settings.editValuePath(key))
            *setting = value;
    return true;
}

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    const std::string path =
        kyDirUtils::GetTempFileUtf8(kyDirUtils::GetTempFolderUtf8(), "ky-example-");
    std::ofstream(path) << "name = a window\n[window]\nwidth = 0x400\n[mine]\nnote = kept\n";

    Settings settings;
    *settings.editValuePath("window/width") = 640;
    *settings.editValuePath("window/scale") = 1.5;
    bool isGood = ReadSettings(path, settings);
    const ky::kyVariant* const width = settings.findPathImpl("window/width");
    std::cout << width->getTypeName() << ' ' << width->toInteger() << ", scale "
              << settings.findPathImpl("window/scale")->toString() << '\n';

    Settings change;
    *change.editValuePath("window/width") = 800;
    isGood = ky::SaveIniFile(path, change, true) && isGood;
    std::cout << std::ifstream(path).rdbuf();
    Settings saved;
    isGood = ky::LoadIniFile(path, saved) && isGood && *saved.findPathImpl("window/width") == 800 &&
             *saved.findPathImpl("mine/note") == "kept";
    kyDirUtils::RemoveFileUtf8(path);
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}

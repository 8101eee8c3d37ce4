// A file format of a program's own: catalogues the files below a folder ("/etc" by default) with
// the data stream, reads the catalogue back, and shows what is told for damaged ones.

#include "ky/kySystem.h"

#include "Catalogue.h"

#include <filesystem>
#include <iostream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

Catalogue CatalogueOf(const std::string& folder)
{
    Catalogue entries;
    std::error_code error;
    fs::recursive_directory_iterator file(folder, fs::directory_options::skip_permission_denied,
                                          error);
    for (; !error && file != fs::recursive_directory_iterator(); file.increment(error)) {
        struct ::stat status = {};
        const std::string path = file->path().string();
        if (::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode))
            entries.push_back({path, static_cast<unsigned long>(status.st_size), status.st_mtime,
                               (status.st_mode & 0111) != 0});
    }
    return entries;
}

bool Write(const std::string& path, const Catalogue& entries)
{
    ky::kyIoDeviceFileStream file(path, ky::kyIoDevice::DataWayWrite, true);
    std::string error;
    bool isGood = WriteCatalogue(file, entries, error);
    // What is buffered can still fail here.
    if (!file.close() && isGood) {
        error = file.getDeviceErrorMsg();
        isGood = false;
    }
    if (!isGood)
        std::cout << path << ' ' << error << '\n';
    return isGood;
}

bool Read(const std::string& path, Catalogue& entries)
{
    ky::kyIoDeviceFileStream file(path, ky::kyIoDevice::DataWayRead, false);
    std::string error;
    const bool isGood = ReadCatalogue(file, entries, error);
    if (!isGood)
        std::cout << path << ' ' << (file.isOpen() ? error : file.getDeviceErrorMsg()) << '\n';
    return isGood;
}

/// Writes one byte into the file.
void Damage(const std::string& path, long position)
{
    ky::kyIoDeviceFileStream file(path, ky::kyIoDevice::DataWayReadWrite, false);
    char byte = 0;
    file.seek(position, ky::kyIoDeviceRandomAccess::SeekFromBeginning);
    file.readBytes(&byte, 1);
    byte = static_cast<char>(byte ^ 1);
    file.seek(position, ky::kyIoDeviceRandomAccess::SeekFromBeginning);
    file.writeBytes(&byte, 1);
}

bool Run(const std::string& folder, const std::string& path)
{
    const Catalogue entries = CatalogueOf(folder);
    Catalogue read;
    if (!Write(path, entries) || !Read(path, read) || read != entries)
        return false;
    unsigned long sum = 0;
    for (const CatalogueEntry& entry : read)
        sum += entry.sizeBytes;
    const auto sizeBytes = static_cast<long>(fs::file_size(path));
    std::cout << read.size() << " files of " << folder << ", " << sum
              << " bytes, in a catalogue of " << sizeBytes << " bytes\n";

    Damage(path, sizeBytes / 2);
    const bool isCorruptRead = Read(path, read);
    Damage(path, sizeBytes / 2);
    const bool isMendedRead = Read(path, read) && read == entries;
    fs::resize_file(path, static_cast<std::uintmax_t>(sizeBytes) - 1);
    const bool isTruncatedRead = Read(path, read);
    return isMendedRead && !isCorruptRead && !isTruncatedRead;
}

}  // namespace

int main(int argc, char** argv)
{
    ky::initializeKySystem(ky::InitType::Light, false);
    const std::string path =
        (fs::temp_directory_path() / ("ky-dataset-" + std::to_string(::getpid()))).string();
    const bool isGood = Run(argc > 1 ? argv[1] : "/etc", path);
    fs::remove(path);
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}

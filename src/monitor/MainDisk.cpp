#include "ky/kySystemUtils.h"

#include <memory>
#include <string>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <climits>
#include <cstdlib>

namespace ky {
namespace {

struct Free {
    void operator()(char* text) const { std::free(text); }
};

std::string BaseName(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string LookUpMainDisk()
{
    struct ::stat root = {};
    if (::stat("/", &root) != 0)
        return {};
    const std::string link = "/sys/dev/block/" + std::to_string(major(root.st_dev)) + ":" +
                             std::to_string(minor(root.st_dev));
    const std::unique_ptr<char, Free> resolved(::realpath(link.c_str(), nullptr));
    if (!resolved)
        return {};
    // A partition is a folder inside its disk's folder and holds a file "partition" (sysfs(5)).
    std::string folder = resolved.get();
    if (::access((folder + "/partition").c_str(), F_OK) == 0)
        folder.resize(folder.rfind('/'));
    return "/dev/" + BaseName(folder);
}

}  // namespace

const std::string& getMainHDDDevice()
{
    // Never destroyed: static destructors may still ask.
    static const std::string& sDevice = *new std::string(LookUpMainDisk());
    return sDevice;
}

}  // namespace ky

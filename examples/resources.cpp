// Files that travel inside the program: CMake's ky_add_resources(example-resources ...) has put
// them there, and they are registered before main begins.

#include "ky/MimeTypeInfo.h"
#include "ky/kyResource.h"
#include "ky/kySystem.h"

#include <iostream>
#include <string>

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    bool isGood = true;
    for (const char* name : {"page.html", "app.logrotate"}) {
        const char* data = nullptr;
        unsigned long size = 0;
        std::string digest;
        isGood = ky::rc::GetResource(name, data, size) &&
                 ky::rc::GetResourceSha256Hex(name, digest) && isGood;
        const std::string& type = ky::GetMimeTypeInfoFromFileNameOrExt(name).getMimeType();
        std::cout << digest << "  " << name << ": " << size << " bytes, "
                  << (type.empty() ? "of no known type" : type) << "\n";
    }
    // A missing one is told in the log.
    std::string text;
    isGood = isGood && !ky::rc::GetResource("missing", text) && text.empty();
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}

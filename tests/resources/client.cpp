// Writes a resource to standard output, or a line for sha256sum(1) for each of several.

#include "ky/kyResource.h"

#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    bool isGood = argc > 1;
    for (int i = 1; i < argc; ++i) {
        std::string text;
        isGood = (argc == 2 ? ky::rc::GetResource(argv[i], text)
                            : ky::rc::GetResourceSha256Hex(argv[i], text)) &&
                 isGood;
        std::cout << text;
        if (argc > 2)
            std::cout << "  " << argv[i] << '\n';
    }
    return isGood ? 0 : 1;
}

// Writes a resource to standard output and its digest to standard error.

#include "ky/kyResource.h"

#include <iostream>

int main(int, char** argv)
{
    std::string bytes;
    std::string digest;
    const bool isGood =
        ky::rc::GetResource(argv[1], bytes) && ky::rc::GetResourceSha256Hex(argv[1], digest);
    std::cout << bytes;
    std::cerr << digest;
    return isGood ? 0 : 1;
}

// A table with a place for a comment in each row, of which few have one: a place costs a pointer.

#include "ky/kyByteArrayLowFootprint.h"

#include <iostream>
#include <vector>

int main()
{
    using ky::kyByteArrayLowFootprint;
    std::vector<kyByteArrayLowFootprint> comments(100000, kyByteArrayLowFootprint::sNull);
    comments[7] = kyByteArrayLowFootprint("checked by hand");
    comments[9].clear();  // seen, and nothing said

    int unseen = 0;
    for (const kyByteArrayLowFootprint& comment : comments)
        unseen += comment.isNull() ? 1 : 0;
    std::cout << unseen << " rows unseen; row 7: " << comments[7].toStringView() << '\n';
    return unseen == 99998 && comments[9].isEmpty() && !comments[9].isNull() ? 0 : 1;
}

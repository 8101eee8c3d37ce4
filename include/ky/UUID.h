#pragma once

#include "ky/kyExport.h"

#include <string>
#include <string_view>

namespace ky {

/// Text forms of 128-bit identifiers, which clients hold as 16 bytes in the order in which the text
/// shows them (RFC 4122 section 3). Any thread.
class KY_API UUID {
public:
    /// How an identifier is written.
    enum Format : int {
        Dashed = 0,   ///< 36 characters: groups of 8, 4, 4, 4 and 12 digits with "-" between
        Compact = 1,  ///< 32 digits
    };

    /// The identifier of 16 zero bytes in the dashed layout.
    static constexpr char msNullText[] = "00000000-0000-0000-0000-000000000000";

    /// Replaces `out` by the text of the 16 bytes at `bytes`, which may be bytes of `out` itself.
    /// Digits are hexadecimal and lower case, two a byte, high nibble first.
    template <Format Layout>
    static void BinaryToString(const void* bytes, std::string& out);

    /// Reads either layout, with digits of any case and nothing before or behind, into the 16 bytes
    /// at `out16`. False for every other text; `out16` is then left as it was.
    static bool StringToBinary(std::string_view text, unsigned char* out16);
};

extern template void UUID::BinaryToString<UUID::Dashed>(const void* bytes, std::string& out);
extern template void UUID::BinaryToString<UUID::Compact>(const void* bytes, std::string& out);

}  // namespace ky

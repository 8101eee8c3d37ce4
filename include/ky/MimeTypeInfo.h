#pragma once

#include "ky/kyExport.h"

#include <string>
#include <utility>

namespace ky {

/// What a file name tells about the content.
class KY_API MimeTypeInfo {
public:
    /// Whether it is worth compressing.
    enum Compressible : int {
        Yes = 0,
        No = 1,       ///< compressed already
        Unknown = 2,  ///< of a type that is not known
    };

    /// The type that is not known.
    MimeTypeInfo() = default;

    /// A type of the host's own.
    MimeTypeInfo(std::string mimeType, Compressible compressible)
        : mMimeType(std::move(mimeType)), mCompressible(compressible)
    {}

    /// As in "text/html"; empty when the type is not known.
    const std::string& getMimeType() const { return mMimeType; }

    /// `Unknown` when the type is not known.
    Compressible getCompressible() const { return mCompressible; }

private:
    std::string mMimeType;
    Compressible mCompressible = Unknown;
};

/// Looks up the extension of a file name or path, or a bare extension, in a fixed table. A-Z count
/// as lower case. The last extension decides when it is known, as in "a.js.gz"; then the last two,
/// as in "a.js.map"; then the text as a whole, as in "PNG" or "js.map". A "." at the start of the
/// name begins no extension.
///
/// For any other text the result is one and the same object, of no known type. Results are never
/// destroyed. Any thread, at any time.
KY_API const MimeTypeInfo& GetMimeTypeInfoFromFileNameOrExt(const std::string& fileNameOrExt);

}  // namespace ky

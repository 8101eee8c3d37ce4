#pragma once

#include <string>
#include <string_view>

namespace ky::impl {

/// Makes `content` all that a file holds, so that it has the old content or the new one whatever
/// happens: written beside it, or beside what a link leads to, flushed to disk and renamed over it,
/// with its mode, owner, access list and extended attributes.
///
/// Written in place is what is no regular file, and a file that may be written but whose folder or
/// owner keep it from being replaced. Null when done, else the start of a message, which the path
/// is to follow, and `errno`; a regular file has its old content then, unless writing in place
/// failed for another reason than space.
const char* ReplaceFile(const std::string& localPath, std::string_view content);

}  // namespace ky::impl

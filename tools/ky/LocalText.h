#pragma once

#include "ky/kyStringUtils.h"

#include <string>

namespace ky::tool {

/// What the command line gives, as the library takes it: in UTF-8. Empty where it has none.
inline std::string ToUtf8(const std::string& localText)
{
    return kyStringUtils::convertCharset(localText, kyStringUtils::CharSetLocal8Bit,
                                         kyStringUtils::CharSetUtf8);
}

}  // namespace ky::tool

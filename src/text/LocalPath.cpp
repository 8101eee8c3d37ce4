#include "text/LocalPath.h"

#include "ky/kyStringUtils.h"

#include "text/Ascii.h"

namespace ky {

std::string impl::ToLocalPath(const std::string& pathUtf8)
{
    if (pathUtf8.find('\0') != std::string::npos)
        return {};
    if (IsAscii(pathUtf8))
        return pathUtf8;
    std::string local = ToLocalText(pathUtf8);
    if (ToUtf8Path(local) != pathUtf8)
        local.clear();
    return local;
}

std::string impl::ToLocalText(const std::string& textUtf8)
{
    if (IsAscii(textUtf8))
        return textUtf8;
    return kyStringUtils::convertCharset(textUtf8, kyStringUtils::CharSetUtf8,
                                         kyStringUtils::CharSetLocal8Bit);
}

std::string impl::ToUtf8Path(const std::string& localPath)
{
    if (IsAscii(localPath))
        return localPath;
    return kyStringUtils::convertCharset(localPath, kyStringUtils::CharSetLocal8Bit,
                                         kyStringUtils::CharSetUtf8);
}

}  // namespace ky

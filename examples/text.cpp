// Text that comes from anywhere, made UTF-8, measured, and written out for a terminal and for XML.

#include "ky/kyMathUtils.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystem.h"

#include <iostream>
#include <string>

using ky::kyStringUtils;

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    // What is no UTF-8 and nothing in the local set either has its wrong bytes replaced.
    std::string title = kyStringUtils::UnknownEncodingToUtf8("caf\xc3\xa9 <R&D>", '?');
    std::cout << title.size() << " bytes, " << kyStringUtils::CountUtf8Char(title)
              << " characters\n";

    const std::string local = kyStringUtils::convertCharset(title, kyStringUtils::CharSetUtf8,
                                                            kyStringUtils::CharSetLocal8Bit);
    kyStringUtils::EscapeXmlString(title);
    std::cout << "in groups: " << ky::kyMathUtils::FormatIntegerSeparator(1234567) << '\n';
    std::cout << "on this terminal: " << local << "\nin XML: " << title << '\n';

    const bool isGood = !local.empty() && title == "caf\xc3\xa9 &lt;R&amp;D&gt;" &&
                        kyStringUtils::compareSoftwareVersion("1.10", "1.9", 0) == 1;
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}

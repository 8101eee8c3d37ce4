#pragma once

#include "ky/kyVariant.h"

#include <string>
#include <string_view>

#include <locale.h>

namespace ky::impl {

/// The "C" locale, whether the library is initialised or not.
locale_t CLocale();

/// What an unquoted value of an INI file stands for: BOOL, INTEGER, REAL or, as it is, STRING.
/// `text` must be without white space at its ends, and `text.data()[text.size()]` a zero byte.
kyVariant ParseScalar(std::string_view text, locale_t cLocale);

void AppendInteger(std::string& out, std::int64_t value);

/// The shortest text that reads back equal and is no integer.
void AppendReal(std::string& out, double value);

}  // namespace ky::impl

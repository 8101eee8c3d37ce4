#pragma once

#include <string>

namespace ky::impl {

/// Turns every "\r\n", and every "\n" outside such a pair, into one blank. A lone "\r" stays.
void PutOnOneLine(std::string& text);

}  // namespace ky::impl

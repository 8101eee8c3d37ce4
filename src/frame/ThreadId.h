#pragma once

#include <string>

namespace ky::impl {

/// The calling thread's kernel id (gettid(2)) in decimal, kept per thread and renewed in a forked
/// child. The text stays readable in static destructors and thread-exit routines.
const std::string& CurrentThreadIdText();

}  // namespace ky::impl

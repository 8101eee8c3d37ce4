#pragma once

#include "ky/kyVariant.h"

#include <string>

namespace ky::impl {

/// Reads the text of an INI file, whose bytes it may change. False at the first wrong line, with
/// the message for the log in `problem`; `out` keeps what was before it.
bool ReadIni(std::string& text, kyVariant::kyVariantMapImpl& out, std::string& problem);

/// Assigns every value of `from` over those in `to`, as if path by path. What has no place there
/// goes to the key "avoidcrashkey".
void AssignValues(const kyVariant::kyVariantMapImpl& from, kyVariant::kyVariantMapImpl& to);

/// Whether such an assignment to an empty map gives an equal one: no key has a slash in it or is
/// empty, and no map below is empty.
bool HasPlainPaths(const kyVariant::kyVariantMapImpl& map);

/// The text of a map with plain paths. Logs what is left out.
std::string WriteIni(const kyVariant::kyVariantMapImpl& map);

}  // namespace ky::impl

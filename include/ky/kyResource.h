#pragma once

#include "ky/kyExport.h"

#include <string>

/// A process-wide registry of named, read-only bytes, called resources, that programs and libraries
/// carry in their own constant data. Only the names are copied; bytes and digests stay where they
/// are. `ky_add_resources` of the CMake package turns files into such data and registers them.
///
/// Names are compared byte by byte. A null name throws `std::logic_error`, also in a lookup.
///
/// Any thread, at any time, also in static constructors and destructors before the library is
/// initialised and after it is terminated. At the full level a table is registered or unregistered
/// as a whole before another thread finds anything; only a custom handler of the log does not wait
/// for that, since the thread that registers may be waiting for the log. A child made by fork(2)
/// has what was registered by then, be it a part of a table.
///
/// Termination empties the registry. Whoever wants resources after a new initialisation registers
/// them again.
namespace ky::rc {

/// Sets `data` to the bytes of a resource, which belong to the module that has registered them and
/// are there until that is unloaded, and `size` to their number. For a name that is not registered
/// it gives null and 0, logs a CRITICAL line, "Resource is missing " and the name, and returns
/// false. An empty resource is no failure.
KY_API bool GetResource(const char* name, const char*& data, unsigned long& size);

/// The same, with a copy of the bytes in `out`, which is empty when the resource is missing. The
/// copy is whole, even while another thread unregisters the resource.
KY_API bool GetResource(const char* name, std::string& out);

/// The SHA-256 digest that was registered with the resource, 64 hexadecimal characters without a
/// terminating zero byte, and 64. The registry neither computes nor checks it. A missing resource
/// is told as above.
KY_API bool GetResourceSha256Hex(const char* name, const char*& digest, unsigned long& size);
KY_API bool GetResourceSha256Hex(const char* name, std::string& out);

namespace impl {

/// Registers `count` resources. Number i has the name `names[i]`, the digest `sha256Hex[i]`, 64
/// characters, and the `sizes[i]` bytes at `blob + offsets[i]`. With a count of 0 every array may
/// be null.
///
/// A name that is registered already, or that comes twice here, keeps its first registration; a
/// CRITICAL line tells it, "Resource conflict " and the name. When a null name, or a lack of
/// memory, throws, what came before it stays registered.
KY_API void RegisterResources(unsigned long count, const char* blob, const char* const* names,
                              const char* const* sha256Hex, const unsigned long* sizes,
                              const unsigned long* offsets);

/// Removes the resources of these names; nothing else is looked at. For a name that is not
/// registered it logs a CRITICAL line, "Resource is already unregistered " and the name. Without a
/// registry, after termination or before anything was registered, it does nothing at all.
KY_API void UnRegisterResources(unsigned long count, const char* blob, const char* const* names,
                                const char* const* sha256Hex, const unsigned long* sizes,
                                const unsigned long* offsets);

}  // namespace impl
}  // namespace ky::rc

#pragma once

#include "ky/kyExport.h"
#include "ky/kyVariant.h"

#include <string>

namespace ky {

/// Adds what an INI file holds to `out`. Paths and keys are UTF-8; a byte order mark is skipped.
///
///     ; a comment
///     level = 3
///     [display/main]
///     scale = 1.5
///
/// gives the values "level" and "display/main/scale" (`kyVariantMapImpl::findPathImpl`). A section
/// without name and "General" are the top level. White space around lines, keys and values is
/// dropped; between the brackets it is part of the name. A line that begins with ";" is a comment;
/// none stands behind a value.
///
/// A value is a BOOL ("true" or "false" in any case), else an INTEGER (decimal, 0x10, 010), else a
/// REAL, as far as strtoll(3) with base 0 and strtod(3) of the "C" locale take all of it, and a
/// STRING otherwise. In double quotes it is a STRING with `\" \t \r \n \\` undone, in this order
/// and each over the whole text; without them no escape is.
///
/// False with a CRITICAL log line, which numbers lines from 1, where the file cannot be read (a
/// folder is none), at a line that is neither, at a key that is empty, has an empty part between
/// slashes or lies below a value, and at one that is there already, in `out` too. `out` keeps what
/// was read before. Linear in the size of the file. Any thread.
KY_API bool LoadIniFile(const std::string& path, kyVariant::kyVariantMapImpl& out);

/// Replaces the file by what `map` holds, with `merge` by what the file holds and `map` over that.
/// A value where the file has a section, or the reverse, goes to the key "avoidcrashkey". Comments
/// and order are not kept.
///
/// INTEGER, REAL, BOOL and STRING are written, others skipped with a CRITICAL line. Keys are
/// written as they are: those that have "=", line breaks, outer blanks or a leading "[" or ";" read
/// back as something else. A STRING reads back equal only where the rules above say so: one that
/// looks like another type becomes that, and a backslash comes back doubled unless there is a
/// double quote in the text. A value in the map "General" is skipped with a WARNING where the top
/// level has its key. A map without any value leaves nothing; one that has maps only leaves a
/// section line, but of such lines no more than 16 MiB are written: each repeats the path so far.
///
/// Whoever reads or crashes meanwhile finds the old file or the new one, whole: it is written
/// beside the file, or what a link leads to, and put in its place when it is on disk, with its
/// mode, owner, access list and attributes. Of several savers at once one wins; take a lock file
/// (`kyLockFile`) around a load or merge and its save to lose no key of others. What is no regular
/// file, or may be written but not replaced (its folder or owner forbid it, it is mounted), is
/// written in place, without that promise but by one saver at a time. Other hard links keep the old
/// file. A save that is killed can leave a file ".ky-*.tmp" behind.
///
/// False with a CRITICAL line when that fails or the file to merge with does not load; the file is
/// as it was then. One that is not writable fails. Any thread.
KY_API bool SaveIniFile(const std::string& path, const kyVariant::kyVariantMapImpl& map,
                        bool merge);

}  // namespace ky

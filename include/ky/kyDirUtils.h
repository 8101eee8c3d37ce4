#pragma once

#include "ky/kyExport.h"

#include <cstdint>
#include <string>

namespace ky {

class kyCancelInterfaceReadOnly;

/// What the system knows of a path at one moment. A plain value.
struct KY_API kyFileInfoUtf8 {
    /// An empty path, zero numbers, no flag set.
    kyFileInfoUtf8() : exists(false), isFile(false), isDir(false) {}
    /// Back to that.
    void clearInfos();

    /// All but the access time, so that reading a file makes no difference to it.
    bool operator==(const kyFileInfoUtf8& other) const;
    bool operator!=(const kyFileInfoUtf8& other) const { return !(*this == other); }

    /// As it was asked for.
    std::string path;
    std::int64_t accessTime = 0;        // times in seconds since 1970-01-01 00:00 UTC
    std::int64_t changeTime = 0;        // of the entry itself: mode, owner, number of links, ...
    std::int64_t modificationTime = 0;  // of the content
    std::int64_t size = 0;              // in bytes
    /// Whether anything is there, and what.
    bool exists : 1;
    bool isFile : 1;  // a regular one
    bool isDir : 1;   // a folder
};

/// Operations on paths, folders and files, without state.
///
/// Paths are UTF-8 on both sides and in the local 8-bit set towards the system. A path that has no
/// unambiguous name there, or contains a zero byte, fails like a missing one (ENOENT), and so does
/// everything but ASCII outside initialisation of the library; what cannot be told in UTF-8 is
/// returned as "". Links are followed unless said otherwise.
///
/// Failures are told by the result and by `errno`, as the failing call left it, and in words by
/// `error`, which may be null and is emptied first, so that it must be none of the other arguments.
/// Any member may be called from any thread.
class KY_API kyDirUtils {
public:
    kyDirUtils() = delete;

    // Queries

    /// The path is copied in any case; the rest is cleared when the path cannot be queried.
    static void GetFileInfoUtf8(const std::string& path, kyFileInfoUtf8& info);
    /// Whatever it is: a folder, a pipe and so on too.
    static bool FileExistsUtf8(const std::string& path);
    /// A folder alone.
    static bool DirExistsUtf8(const std::string& path);
    /// True for the empty path.
    static bool IsPathRelativeUtf8(const std::string& path);
    /// Whether the path lies on NFS or FUSE (statfs(2)). Takes the local bytes, not UTF-8.
    static bool IsNetworkPath(const std::string& path);
    /// Bytes free on the file system that holds `path`, those reserved for the super-user included;
    /// 0 when it cannot be asked. `error` is emptied and never filled.
    static unsigned long GetAvailableDiskSizeUtf8(const std::string& path, std::string& error);
    /// The path itself: names are case-exact on this platform.
    static std::string GetActualPathNameUtf8(const std::string& path);

    // Current, temporary and user folders

    /// The current folder belongs to the whole process. "" on failure.
    static std::string GetCurrentWorkingDirUtf8();
    /// For all threads, so it is for the start of a program.
    static bool SetCurrentWorkingDirUtf8(const std::string& path);
    /// The folder of the running program; "" when that lies in the root.
    static bool GetProcessFolderUtf8(std::string& folder);
    /// "TMPDIR" of the environment as it is, even empty or missing on disk; "/tmp" when not set.
    static std::string GetTempFolderUtf8();
    /// Makes an empty file with mode 0600, whose name is `prefix` and six characters that make it
    /// new, and gives its path; "" on failure.
    static std::string GetTempFileUtf8(const std::string& folder, const std::string& prefix);
    /// Fails unless `suffix` is empty or itself ends in "XXXXXX", which is what gets replaced then.
    static std::string GetTempFileUtf8(const std::string& folder, const std::string& prefix,
                                       const std::string& suffix);
    /// Below "HOME" of the environment, or "." when that is not set. Only the documents folder is
    /// looked for on disk: where it is missing, its parent is given.
    static std::string GetDocumentsFolderUtf8();
    static std::string GetPicturesFolderUtf8();
    static std::string GetDownloadFolderUtf8();
    static std::string GetAppDataFolderUtf8(const std::string& appName);

    // Path text, which nothing on disk has a part in. Both "/" and "\" separate; results have "/".

    /// Puts one separator between the parts; an empty part counts for nothing. "\" stays as it is,
    /// and no further separator is removed.
    static std::string JoinPath(const std::string& a, const std::string& b);
    static std::string JoinPath(const std::string& a, const std::string& b, const std::string& c);
    static std::string JoinPath(const std::string& a, const std::string& b, const std::string& c,
                                const std::string& d);
    /// Drops "." and repeated separators, but keeps two at the start, and drops ".." with the name
    /// before it: wrong where that is a link. At the root ".." is dropped, at the start of a
    /// relative path it stays. A separator at the end stays, and a path that ends in "/." or "/.."
    /// gets none. What folds away is ".", the empty path stays empty. Linear in the length of the
    /// path.
    static std::string SimplifyPath(const std::string& path);
    /// `path` against `base` against the current folder. An absolute path is only simplified; of
    /// another the longest head that exists has its links resolved (realpath(3)), and the missing
    /// rest is appended as it is. What starts with "//", or with any byte and ":/", is absolute. ""
    /// on failure.
    static std::string GetAbsolutePathUtf8(const std::string& path, const std::string& base = "");
    /// Without the last name: "/" of "/a" and "/", "" of "a". A separator at the end is ignored.
    static std::string GetParentPathUtf8(const std::string& path);
    /// What is before the last separator: "" of "/a" and of "a".
    static std::string ExtractFolder(const std::string& path);
    /// The last name without its last "." and what follows, unless that "." is its first byte.
    static std::string ExtractFileBaseName(const std::string& path);
    /// Both sides of the last separator; without one, all is `fileName`.
    static void SplitFolderFilename(const std::string& path, std::string& folder,
                                    std::string& fileName);
    /// Up to `maxParts`, at least 1, of the parts that a "." precedes in the last name, without the
    /// first ".": "tar.gz" of "a.tar.gz" with 2. A "." at the start of the name precedes none.
    /// Lower case is that of ASCII.
    static std::string ExtractFileExtension(const std::string& path, bool toLowerCase,
                                            int maxParts);
    /// Puts `replacement`, which may be any byte, for each of " * / : < > ? \ |. A name that is not
    /// const is changed in place.
    static void GenerateValidFileName(std::string& name, char replacement);
    static std::string GenerateValidFileName(const std::string& name, char replacement);

    // Changes

    /// Makes every missing folder of `path`, mode 0777 less the umask; "\" is no separator here.
    /// True when all of it is a folder afterwards, whoever made it. ENOTDIR where something else
    /// is in the way; what was made by then stays.
    static bool MkpathUtf8(const std::string& path);
    /// Adds reading, writing and executing for everybody to the mode.
    static bool GrantAllFilePermissionsUtf8(const std::string& path);
    /// Copies the bytes; mode and times are not copied. True also after errors of reading and
    /// writing: compare the sizes where that matters. Copying a file onto itself changes nothing.
    /// Without `overwrite`, what exists at the destination is refused, in words that blame the
    /// source.
    static bool CopyFileUtf8(const std::string& source, const std::string& destination,
                             bool overwrite, std::string* error = nullptr);
    /// As rename(2): replaces a file at the destination, and does not follow links.
    static bool RenameFileUtf8(const std::string& source, const std::string& destination,
                               std::string* error = nullptr);
    /// Removes a file, a link or an empty folder. The empty path is no failure.
    static bool RemoveFileUtf8(const std::string& path, std::string* error = nullptr);
    /// Removes all that is in a folder, and with `removeFolder` the folder. True when there is no
    /// such folder. The first failure ends it; what was removed by then is gone. A folder that
    /// opens and then cannot be read is told as "opendir error " too. What others put there
    /// meanwhile may stay, and their folder with it ("rmdir error ").
    ///
    /// Nothing outside the folder is removed, whatever links are in it or are put there meanwhile:
    /// only `path` itself may be a link. Any depth and any names, with at most 34 descriptors.
    /// `cancel`, which may be null, is asked for each entry ("." and ".." too) and after each
    /// folder; when it says yes the folder stays, and `error` is "Canceled".
    static bool ClearFolderUtf8(const std::string& path, bool removeFolder,
                                std::string* error = nullptr,
                                const kyCancelInterfaceReadOnly* cancel = nullptr);
};

}  // namespace ky

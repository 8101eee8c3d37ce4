#include "log/LogFileNames.h"

#include "ky/SystemError.h"

#include "frame/TimeText.h"
#include "fs/ScopedHandles.h"
#include "log/LogFileState.h"
#include "text/Ascii.h"
#include "text/LocalPath.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

namespace ky {
namespace {

using Interval = kyLog::TimeRotationInterval;

constexpr int sDaysOfAnyPeriod = 33;

struct Name {
    std::string folder;  // with its slash
    std::string stem;
    std::string extension;  // with its dot
};

Name Split(const std::string& path)
{
    const std::string::size_type base = path.rfind('/') + 1;
    std::string::size_type dot = path.rfind('.');
    if (dot == std::string::npos || dot <= base)
        dot = path.size();
    return {path.substr(0, base), path.substr(base, dot - base), path.substr(dot)};
}

/// Removes from `text` what `pattern` stands for: '0' for a digit, '#' for digits, others for
/// themselves.
bool Consume(std::string_view& text, std::string_view pattern)
{
    std::string_view rest = text;
    for (const char expected : pattern) {
        const bool isNumber = expected == '0' || expected == '#';
        if (rest.empty() ||
            !(isNumber ? impl::IsAsciiDigit(rest.front()) : rest.front() == expected))
            return false;
        do
            rest.remove_prefix(1);
        while (expected == '#' && !rest.empty() && impl::IsAsciiDigit(rest.front()));
    }
    text = rest;
    return true;
}

bool IsMark(std::string_view text)
{
    for (const char* const pattern : {"_#-00-00-00-00-00", "_#-00-00", "_#-W00", "_#-00"}) {
        std::string_view rest = text;
        if (Consume(rest, pattern) && (rest.empty() || (Consume(rest, "-#") && rest.empty())))
            return true;
    }
    return false;
}

bool IsPutAside(const Name& name, std::string_view file)
{
    const std::size_t around = name.stem.size() + name.extension.size();
    return file.size() > around && file.substr(0, name.stem.size()) == name.stem &&
           file.substr(file.size() - name.extension.size()) == name.extension &&
           IsMark(file.substr(name.stem.size(), file.size() - around));
}

using TimedName = std::pair<std::pair<long, long>, std::string>;

std::vector<TimedName> FilesPutAside(const Name& name)
{
    std::vector<TimedName> files;
    const impl::ScopedDir folder(::opendir(name.folder.c_str()));
    const dirent* entry = nullptr;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): it is, for a stream of one's own (readdir(3))
    while (folder && (entry = ::readdir(folder.get())) != nullptr) {
        struct stat info;
        if (IsPutAside(name, entry->d_name) &&
            ::fstatat(::dirfd(folder.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(info.st_mode))
            files.push_back({{info.st_mtim.tv_sec, info.st_mtim.tv_nsec}, entry->d_name});
    }
    return files;
}

}  // namespace

std::string impl::SizeRotationMark(long seconds)
{
    return FormatTime(seconds, "_%Y-%m-%d-%H-%M-%S", true);
}

std::string impl::TimeRotationMark(long seconds, Interval interval)
{
    switch (interval) {
        case Interval::Daily:
            return FormatTime(seconds, "_%Y-%m-%d", true);
        case Interval::Weekly:
            return FormatTime(seconds, "_%Y-W%U", true);
        case Interval::Monthly:
            return FormatTime(seconds, "_%Y-%m", true);
        case Interval::None:
            break;
    }
    return {};
}

long impl::EndOfPeriod(long seconds, Interval interval)
{
    // By asking for the mark itself, so that whatever the zone does at its midnights, file and
    // name agree.
    const std::string mark = TimeRotationMark(seconds, interval);
    long inside = seconds;
    long outside = seconds;
    for (int day = 0; day < sDaysOfAnyPeriod && !mark.empty(); ++day) {
        outside += LogPeriod::sDaySeconds;
        if (TimeRotationMark(outside, interval) != mark)
            break;
        inside = outside;
    }
    if (inside == outside)
        return std::numeric_limits<long>::max();
    while (outside - inside > 1) {
        const long middle = inside + (outside - inside) / 2;
        (TimeRotationMark(middle, interval) == mark ? inside : outside) = middle;
    }
    return outside;
}

int impl::MakeAside(const std::string& path, const std::string& mark, std::string& name)
{
    const Name parts = Split(path);
    name = parts.folder + parts.stem + mark + parts.extension;
    for (unsigned long number = 1;; ++number) {
        const int fd =
            ::open(name.c_str(), sLogFileFlags | O_RDWR | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
        if (fd != -1 || errno != EEXIST)
            return fd;
        name = parts.folder + parts.stem + mark + "-" + std::to_string(number) + parts.extension;
    }
}

bool impl::Exchange(const std::string& path, const std::string& aside)
{
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_EXCHANGE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    const std::string between = aside + ".tmp";
    return std::rename(path.c_str(), between.c_str()) == 0 &&
           std::rename(aside.c_str(), path.c_str()) == 0 &&
           std::rename(between.c_str(), aside.c_str()) == 0;
}

std::size_t impl::RemoveOldest(const std::string& path, const std::string& newest, std::size_t keep,
                               std::string& trouble)
{
    const Name name = Split(path);
    std::vector<TimedName> files = FilesPutAside(name);
    for (TimedName& file : files) {
        if (name.folder + file.second == newest)
            file.first.first = std::numeric_limits<long>::max();
    }
    std::sort(files.begin(), files.end());
    std::size_t removed = 0;
    for (std::size_t i = 0; i + keep < files.size(); ++i) {
        const std::string file = name.folder + files[i].second;
        const int error = ::unlink(file.c_str()) == 0 ? 0 : errno;
        if (error == 0)
            ++removed;
        else if (error != ENOENT)
            trouble = "Fail to remove previous log file '" + ToUtf8Path(file) +
                      "' error was : " + SystemError(error).toString();
    }
    return removed;
}

}  // namespace ky

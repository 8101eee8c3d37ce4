#include "process/ProgramSearch.h"

#include <string_view>

#include <unistd.h>
#include <cstdlib>

namespace ky::impl {
namespace {

std::string SearchPath()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe) as exec(3) does
    if (const char* const path = std::getenv("PATH"))
        return path;
    std::string path(::confstr(_CS_PATH, nullptr, 0), '\0');
    ::confstr(_CS_PATH, path.data(), path.size());
    if (!path.empty())
        path.pop_back();  // the final zero is counted
    return path;
}

}  // namespace

std::vector<std::string> ProgramCandidates(const std::string& program)
{
    if (program.empty())
        return {};
    if (program.find('/') != std::string::npos)
        return {program};
    const std::string path = SearchPath();
    std::vector<std::string> candidates;
    std::string_view rest = path;
    while (true) {
        const std::size_t end = rest.find(':');
        std::string candidate(rest.substr(0, end));
        // An empty entry is the current folder.
        if (!candidate.empty())
            candidate += '/';
        candidates.push_back(candidate + program);
        if (end == std::string_view::npos)
            return candidates;
        rest.remove_prefix(end + 1);
    }
}

}  // namespace ky::impl

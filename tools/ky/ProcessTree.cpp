#include "ProcessTree.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

namespace ky::tool {
namespace {

std::string Folder(pid_t process)
{
    return "/proc/" + std::to_string(process);
}

bool Contains(const std::vector<pid_t>& processes, pid_t process)
{
    return std::find(processes.begin(), processes.end(), process) != processes.end();
}

}  // namespace

ProcessTree::ProcessTree()
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    mForeign = list();
}

std::vector<pid_t> ProcessTree::list() const
{
    std::vector<pid_t> found;
    addChildren(::getpid(), found);
    for (std::size_t i = 0; i < found.size(); ++i)
        addChildren(pid_t{found[i]}, found);
    return found;
}

/// Each thread has children of its own (proc(5)).
void ProcessTree::addChildren(pid_t process, std::vector<pid_t>& found) const
{
    std::error_code error;
    std::filesystem::directory_iterator task(Folder(process) + "/task", error);
    for (; !error && task != std::filesystem::end(task); task.increment(error)) {
        std::ifstream children(task->path() / "children");
        for (pid_t child = 0; children >> child;) {
            if (!Contains(mForeign, child) && !Contains(found, child))
                found.push_back(child);
        }
    }
}

unsigned long ProcessTree::residentBytes() const
{
    const auto pageBytes = static_cast<unsigned long>(::sysconf(_SC_PAGESIZE));
    unsigned long pages = 0;
    for (const pid_t process : list()) {
        unsigned long all = 0;
        unsigned long resident = 0;
        if (std::ifstream(Folder(process) + "/statm") >> all >> resident)
            pages += resident;
    }
    return pages * pageBytes;
}

void ProcessTree::Reach::send(pid_t process, int number)
{
    if (::kill(process, number) == 0)
        ++reached;
    else if (errno == EPERM)
        ++refused;
}

ProcessTree::Reach ProcessTree::signal(int number) const
{
    Reach reach;
    for (const pid_t process : list())
        reach.send(process, number);
    return reach;
}

void ProcessTree::Collect(pid_t command)
{
    siginfo_t ended = {};
    while (::waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0 &&
           ended.si_pid != command)
        ::waitpid(ended.si_pid, nullptr, WNOHANG);
}

}  // namespace ky::tool

#pragma once

#include <vector>

#include <sys/types.h>

namespace ky::tool {

/// The processes that this one starts from now on, with all that they start. This process adopts
/// those whose own parent ends (PR_SET_CHILD_SUBREAPER, prctl(2)), so none gets out of sight.
class ProcessTree {
public:
    ProcessTree();

    /// Without those that are left over by whatever ran in this process before.
    std::vector<pid_t> list() const;

    /// Bytes in physical memory of all of them, pages that they share counted for each.
    unsigned long residentBytes() const;

    /// What became of a signal.
    struct Reach {
        int reached = 0;
        int refused = 0;  ///< by the system, for what may not be signalled (kill(2))
        void send(pid_t process, int number);
    };
    Reach signal(int number) const;

    /// Collects those that have ended, except `command`, whose outcome others ask for; 0 for none.
    static void Collect(pid_t command);

private:
    void addChildren(pid_t process, std::vector<pid_t>& found) const;

    std::vector<pid_t> mForeign;
};

}  // namespace ky::tool

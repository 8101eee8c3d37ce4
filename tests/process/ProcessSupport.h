#pragma once

#include "ky/kyProcess.h"

#include "support/Child.h"
#include "support/Library.h"

#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>
#include <csignal>

namespace ky::test {

using Words = std::vector<std::string>;

struct Process : LightLibrary {
    const TemporaryFolder folder;
    kyProcess process;
};

/// What `body`, run in a child, and all that it starts have printed once the last of them is gone.
inline std::string PrintedBy(const std::function<void()>& body)
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ExpectChildPasses([&] {
        ::dup2(ends[1], STDOUT_FILENO);
        body();
    });
    ::close(ends[1]);
    std::string text;
    for (char c = 0; ::read(ends[0], &c, 1) == 1;)
        text += c;
    ::close(ends[0]);
    return text;
}

/// A signal that is handled without SA_RESTART, again and again after so many microseconds, or no
/// more for 0.
inline void SendAlarms(int periodUs)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval timer = {{0, periodUs}, {0, periodUs}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace ky::test

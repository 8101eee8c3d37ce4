#pragma once

#include <functional>
#include <string>
#include <thread>

namespace ky::test {

/// Returns once the thread with that kernel id, of this process or another, sleeps in the kernel
/// (proc(5), state S): it waits for something. Returns as well when there is no such thread.
void WaitUntilAsleep(const std::string& threadId);

/// Returns once every other thread of this process sleeps. To be called before a fork in a process
/// with threads that have just been started: a child forked while one of them allocates finds the
/// locks of the sanitizers taken for ever.
void WaitUntilOthersAreAsleep();

/// Starts a thread and returns once it sleeps in `body`, or has ended.
std::thread StartUntilAsleep(std::function<void()> body);

}  // namespace ky::test

#pragma once

#include <functional>
#include <string>
#include <thread>

namespace ky::test {

/// Returns once the thread with that kernel id, of this process or another, sleeps in the kernel
/// (proc(5), state S): it waits for something. Returns as well when there is no such thread.
void WaitUntilAsleep(const std::string& threadId);

/// Starts a thread and returns once it sleeps in `body`, or has ended.
std::thread StartUntilAsleep(std::function<void()> body);

}  // namespace ky::test

#include "support/Asleep.h"

#include "frame/ThreadId.h"

#include <fstream>
#include <future>
#include <memory>
#include <utility>

#include <sched.h>

namespace ky::test {

void WaitUntilAsleep(const std::string& threadId)
{
    const std::string path = "/proc/" + threadId + "/task/" + threadId + "/stat";
    while (true) {
        std::ifstream file(path);
        std::string line;
        if (!std::getline(file, line))
            return;
        // The name before the state may contain anything, a parenthesis too.
        const auto nameEnd = line.rfind(')');
        if (line.compare(nameEnd, 3, ") S") == 0)
            return;
        ::sched_yield();
    }
}

std::thread StartUntilAsleep(std::function<void()> body)
{
    const auto id = std::make_shared<std::promise<std::string>>();
    std::thread thread([id, body = std::move(body)] {
        id->set_value(impl::CurrentThreadIdText());
        body();
    });
    WaitUntilAsleep(id->get_future().get());
    return thread;
}

}  // namespace ky::test

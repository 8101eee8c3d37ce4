#include "support/Asleep.h"

#include "frame/ThreadId.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <utility>

#include <sched.h>
#include <unistd.h>

namespace ky::test {
namespace {

/// True as well when there is no such thread any more.
bool IsAsleep(const std::string& threadId)
{
    std::ifstream file("/proc/" + threadId + "/task/" + threadId + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return true;
    // The name before the state may contain anything, a parenthesis too.
    const char state = line[line.rfind(')') + 2];
    return state == 'S' || state == 'Z';
}

bool AreOthersAsleep()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::all_of(begin(tasks), end(tasks), [](const auto& task) {
        const std::string id = task.path().filename();
        return id == std::to_string(::gettid()) || IsAsleep(id);
    });
}

}  // namespace

void WaitUntilAsleep(const std::string& threadId)
{
    while (!IsAsleep(threadId))
        ::sched_yield();
}

void WaitUntilOthersAreAsleep()
{
    // One may wake another before it goes to sleep itself, so one look is not enough.
    for (int looks = 0; looks < 3; looks = AreOthersAsleep() ? looks + 1 : 0)
        ::sched_yield();
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

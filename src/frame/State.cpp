#include "frame/State.h"

#include "ky/kySystem.h"

#include "frame/Report.h"

#include <string>

#include <unistd.h>

namespace ky {
namespace impl {

constinit std::atomic<int> State::msLevel{0};
constinit std::atomic<unsigned long> State::msFullInitProcessId{0};

}  // namespace impl

bool IsKySystemThreadSafe()
{
    CheckIfProcessForkAfterThreadSafeInit();
    return impl::State::Level() == static_cast<int>(InitType::Full);
}

void CheckIfProcessForkAfterThreadSafeInit()
{
    const unsigned long initialised = impl::State::FullInitProcessId();
    if (initialised == 0 || impl::State::Level() != static_cast<int>(InitType::Full))
        return;
    const auto current = static_cast<unsigned long>(::getpid());
    if (current == initialised)
        return;
    // kept: the recorded id stays the parent's, so every later check of this child reports again.
    impl::ReportIfLogged(impl::ReportLevel::Critical, "kySystem",
                         "Detect process fork after thread initialization from " +
                             std::to_string(initialised) + " to " + std::to_string(current));
}

}  // namespace ky

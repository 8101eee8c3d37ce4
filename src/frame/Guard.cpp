#include "frame/Guard.h"

#include "ky/kyException.h"

#include "frame/CancelBan.h"
#include "frame/Report.h"

#include <exception>
#include <string>
#include <string_view>

#include <cxxabi.h>
#include <sys/uio.h>
#include <unistd.h>

// The crash handler looks for a frame of exactly this function, so it must stay one.
#if defined(__clang__)
#define KY_OWN_FRAME __attribute__((noinline))
#else
#define KY_OWN_FRAME __attribute__((noipa))
#endif

namespace ky {
namespace {

using Function = void (*)(void*);

class GuardScope;

// The crash handler reads both: with this model no access allocates, which it otherwise may do the
// first time in a thread when the library was loaded late.
[[gnu::tls_model("initial-exec")]] constinit thread_local const GuardScope* tInnermost = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local int tBans = 0;

class GuardScope {
public:
    GuardScope() noexcept : mOuter(tInnermost), mExceptionsAtEntry(std::uncaught_exceptions())
    {
        tInnermost = this;
    }
    ~GuardScope() { tInnermost = mOuter; }
    GuardScope(const GuardScope&) = delete;
    GuardScope& operator=(const GuardScope&) = delete;

    bool hasExceptionInside() const { return std::uncaught_exceptions() > mExceptionsAtEntry; }

private:
    const GuardScope* const mOuter;
    const int mExceptionsAtEntry;
};

/// Without the memory for a log line the report still appears on standard error.
void ReportCaught(std::string_view before, std::string_view text, std::string_view after) noexcept
{
    // Unwinding a cancelled thread out of a handler of exceptions ends the process.
    const impl::CancelBan ban;
    try {
        std::string line;
        line.append(before).append(text).append(after);
        impl::Report(impl::ReportLevel::Critical, "kySystem", line);
    } catch (...) {
        const auto piece = [](std::string_view part) {
            return iovec{const_cast<char*>(part.data()), part.size()};
        };
        const iovec pieces[] = {piece(before), piece(text), piece(after), piece("\n")};
        [[maybe_unused]] const ssize_t ignored = ::writev(STDERR_FILENO, pieces, 4);
    }
}

// The unwinding of a cancelled thread has no object, so the reference to it has none to bind to.
__attribute__((no_sanitize("null"))) KY_OWN_FRAME void RunGuarded(Function function, void* argument)
{
    try {
        const GuardScope scope;
        function(argument);
    } catch (const abi::__forced_unwind&) {
        // Swallowing it would end the process ("exception not rethrown").
        throw;
    } catch (const std::exception& exception) {
        const char* const what = exception.what();
        ReportCaught("Catch an exception : '", what != nullptr ? what : "",
                     "' see application and system logs");
    } catch (...) {
        ReportCaught("Unknown exception", {}, {});
    }
}

}  // namespace

namespace impl {

bool HasReadyGuard() noexcept
{
    return tInnermost != nullptr && tBans == 0 && !tInnermost->hasExceptionInside();
}

std::uintptr_t GuardFunctionAddress() noexcept
{
    return reinterpret_cast<std::uintptr_t>(&RunGuarded);
}

ScopedCrashThrowBan::ScopedCrashThrowBan() noexcept
{
    ++tBans;
}

ScopedCrashThrowBan::~ScopedCrashThrowBan()
{
    --tBans;
}

}  // namespace impl

namespace exception::impl {

void ExecGuardedCode(void (*function)(void*), void* argument)
{
    RunGuarded(function, argument);
}

void ExecGuardedCode(void (*function)())
{
    const auto call = [](void* target) { reinterpret_cast<void (*)()>(target)(); };
    RunGuarded(call, reinterpret_cast<void*>(function));
}

}  // namespace exception::impl
}  // namespace ky

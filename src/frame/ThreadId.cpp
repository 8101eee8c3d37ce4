#include "frame/ThreadId.h"

#include "frame/ProcessId.h"

#include <new>

#include <sys/syscall.h>
#include <unistd.h>

namespace ky::impl {
namespace {

// The string is never destroyed: ten digits fit into its own buffer, so it owns no memory, and
// thread-exit routines of the host may still log after any destructor of ours would have run.
struct ThreadIdCache {
    unsigned long processId;
    alignas(std::string) unsigned char text[sizeof(std::string)];
};

constinit thread_local ThreadIdCache tCache = {};

}  // namespace

const std::string& CurrentThreadIdText()
{
    ThreadIdCache& cache = tCache;
    auto* const text = reinterpret_cast<std::string*>(cache.text);
    const unsigned long processId = CachedProcessId();
    if (cache.processId != processId) {
        new (cache.text) std::string(std::to_string(::syscall(SYS_gettid)));
        cache.processId = processId;
    }
    return *std::launder(text);
}

}  // namespace ky::impl

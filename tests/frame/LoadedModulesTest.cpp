#include "frame/LoadedModules.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <span>

#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using Ranges = std::map<std::uintptr_t, std::uintptr_t>;

/// Begin and end of a module by the dynamic linker's own account.
int AddLinked(dl_phdr_info* info, size_t, void* out)
{
    std::uintptr_t begin = ~0UL;
    std::uintptr_t end = 0;
    for (const auto& segment : std::span(info->dlpi_phdr, info->dlpi_phnum))
        if (segment.p_type == PT_LOAD) {
            begin = std::min(begin, info->dlpi_addr + segment.p_vaddr);
            end = std::max(end, info->dlpi_addr + segment.p_vaddr + segment.p_memsz);
        }
    (*static_cast<Ranges*>(out))[begin] = end;
    return 0;
}

}  // namespace

TEST(LoadedModules, AreThoseThatTheDynamicLinkerKnows)
{
    // An ELF file that somebody reads is no module.
    const int self = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    void* const data = ::mmap(nullptr, 65536, PROT_READ, MAP_PRIVATE, self, 0);
    ::close(self);
    Ranges linked;
    ::dl_iterate_phdr(&AddLinked, &linked);
    Ranges walked;
    ky::impl::ModuleWalk walk;
    for (ky::impl::LoadedModule module = {}; walk.next(module);) {
        EXPECT_EQ(module.line.data()[module.line.size()], '\n');
        walked[module.begin] = module.end;
    }
    EXPECT_EQ(walked, linked);
    ::munmap(data, 65536);
}

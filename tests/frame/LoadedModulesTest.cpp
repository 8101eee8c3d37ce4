#include "frame/LoadedModules.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdio>

namespace {

std::map<std::uintptr_t, std::string> WalkedLines()
{
    std::map<std::uintptr_t, std::string> lines;
    ky::impl::ModuleWalk walk;
    for (ky::impl::LoadedModule module = {}; walk.next(module);) {
        EXPECT_EQ(module.line.data()[module.line.size()], '\n');
        EXPECT_TRUE(lines.emplace(module.begin, module.line).second) << module.line;
    }
    return lines;
}

std::string Hex(std::uintptr_t number)
{
    char text[24];
    return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "0x%lx", number))};
}

/// Begin of a line of the report for each module, by the dynamic linker's own account.
int AddLinked(dl_phdr_info* info, size_t, void* out)
{
    std::uintptr_t begin = ~0UL;
    std::uintptr_t end = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD)
            continue;
        begin = std::min(begin, info->dlpi_addr + segment.p_vaddr);
        end = std::max(end, info->dlpi_addr + segment.p_vaddr + segment.p_memsz);
    }
    (*static_cast<std::map<std::uintptr_t, std::string>*>(out))[begin] =
        "Module " + Hex(begin) + "-" + Hex(end) + " build-id ";
    return 0;
}

}  // namespace

TEST(LoadedModules, AreThoseThatTheDynamicLinkerKnows)
{
    // An ELF file that somebody reads is no module.
    const int self = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    void* const data = ::mmap(nullptr, 65536, PROT_READ, MAP_PRIVATE, self, 0);
    ::close(self);

    std::map<std::uintptr_t, std::string> linked;
    ::dl_iterate_phdr(&AddLinked, &linked);
    const auto walked = WalkedLines();
    ::munmap(data, 65536);
    ASSERT_EQ(walked.size(), linked.size());
    for (const auto& [begin, start] : linked) {
        ASSERT_EQ(walked.count(begin), 1u) << start;
        EXPECT_EQ(walked.at(begin).find(start), 0u) << walked.at(begin) << "\n" << start;
    }
}

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ky::impl {

/// A program, shared object or vdso(7) in the memory of the process.
struct LoadedModule {
    std::uintptr_t begin;   ///< where the first byte of its file is mapped
    std::uintptr_t end;     ///< behind its last segment
    std::string_view line;  ///< for a crash report; a newline follows it. Until the next `next`
};

/// Goes through the modules in the order of their addresses, for use in a signal handler: it
/// allocates nothing, and neither waits for the lock of the dynamic linker, as dl_iterate_phdr(3)
/// does and which a crash inside dlopen(3) leaves locked, nor trusts what the linker keeps in
/// memory. The kernel lists what is mapped (proc(5)) and copies the ELF headers out
/// (process_vm_readv(2)), so that a module that goes meanwhile is left out instead of faulting.
///
/// Finds nothing without /proc, without a free descriptor, or where the copying is forbidden.
class ModuleWalk {
public:
    ModuleWalk() noexcept;
    ~ModuleWalk();
    ModuleWalk(const ModuleWalk&) = delete;
    ModuleWalk& operator=(const ModuleWalk&) = delete;

    /// The next module, false at the end. Leaves `errno` changed.
    ///
    /// A line reads "Module 0x7f10a0000000-0x7f10a01e1000 build-id 0123abcd /usr/lib/libx.so":
    /// begin and end, the identifier in hex or "none", the path as the kernel tells it, which
    /// replaces a newline by "\012" and ends in " (deleted)" when the file is no longer there.
    bool next(LoadedModule& module) noexcept;

private:
    struct Mapping {
        std::uintptr_t begin;
        std::uintptr_t end;
        std::uintptr_t offset;
        bool isReadable;
        bool isExecutable;
        std::string_view path;
    };

    bool nextLine(std::string_view& line) noexcept;
    bool refill() noexcept;
    bool look(const Mapping& mapping) noexcept;
    void compose(std::uintptr_t begin, std::uintptr_t headers, unsigned int headerCount,
                 std::string_view path) noexcept;
    void append(std::string_view text) noexcept;
    void appendHex(std::uintptr_t number) noexcept;
    void appendBuildId(std::uintptr_t notes, std::size_t size) noexcept;

    static bool Parse(std::string_view line, Mapping& mapping) noexcept;

    int mFile;
    std::size_t mStart = 0;  // of what has been read and not been taken
    std::size_t mEnd = 0;
    // The module that an executable mapping has yet to confirm: files that are merely mapped to be
    // read have ELF headers too.
    std::uintptr_t mBegin = 0;
    std::uintptr_t mModuleEnd = 0;
    std::uintptr_t mCode = 0;  // an address in its code, 0 while there is no such module
    std::size_t mLineSize = 0;
    std::array<char, 4400> mRead;  // a line holds a path of PATH_MAX
    std::array<char, 4400> mLine;
};

}  // namespace ky::impl

#include "frame/LoadedModules.h"

#include "fs/ScopedHandles.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <limits>

#include <elf.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>
#include <cstring>

namespace ky::impl {
namespace {

constexpr unsigned int sMostHeaders = 128;
constexpr std::uintptr_t sPageBytes = 4096;

/// False, without a fault, where the memory is not there.
bool CopyMemory(std::uintptr_t from, void* to, std::size_t size) noexcept
{
    const iovec local = {to, size};
    const iovec remote = {std::bit_cast<void*>(from), size};
    return ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

template <typename Value>
bool CopyMemory(std::uintptr_t from, Value& to) noexcept
{
    return CopyMemory(from, &to, sizeof to);
}

std::uintptr_t TakeHex(std::string_view& text) noexcept
{
    std::uintptr_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

void SkipField(std::string_view& text) noexcept
{
    text.remove_prefix(std::min(text.find(' '), text.size()));
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

bool IsOurKind(const Elf64_Ehdr& header) noexcept
{
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_phentsize == sizeof(Elf64_Phdr) &&
           (header.e_type == ET_DYN || header.e_type == ET_EXEC);
}

/// What the program headers of a module say of its memory. Addresses count from where the link
/// editor has put the first byte.
struct Segments {
    std::uintptr_t first = std::numeric_limits<std::uintptr_t>::max();
    std::uintptr_t last = 0;
    std::uintptr_t code = 0;  // 0 for none
    std::array<Elf64_Phdr, 4> notes;
    std::size_t noteCount = 0;
};

/// False where the headers are not there, or make no sense.
bool ReadSegments(std::uintptr_t headers, unsigned int headerCount, Segments& segments) noexcept
{
    for (unsigned int i = 0; i < headerCount; ++i) {
        Elf64_Phdr segment;
        if (!CopyMemory(headers + i * sizeof segment, segment))
            return false;
        if (segment.p_type == PT_NOTE && segments.noteCount < segments.notes.size())
            segments.notes[segments.noteCount++] = segment;
        if (segment.p_type != PT_LOAD)
            continue;
        if (segment.p_offset < sPageBytes)
            segments.first =
                std::min(segments.first, (segment.p_vaddr - segment.p_offset) & ~(sPageBytes - 1));
        segments.last = std::max(segments.last, segment.p_vaddr + segment.p_memsz);
        if ((segment.p_flags & PF_X) != 0 && segments.code == 0)
            segments.code = segment.p_vaddr;
    }
    return segments.first <= segments.last && segments.code >= segments.first;
}

}  // namespace

ModuleWalk::ModuleWalk() noexcept : mFile(::open("/proc/self/maps", O_RDONLY | O_CLOEXEC)) {}

ModuleWalk::~ModuleWalk()
{
    if (mFile != -1)
        ::close(mFile);
}

bool ModuleWalk::next(LoadedModule& module) noexcept
{
    std::string_view line;
    Mapping mapping = {};
    while (nextLine(line)) {
        if (!Parse(line, mapping) || !look(mapping))
            continue;
        mCode = 0;
        module = {mBegin, mModuleEnd, {mLine.data(), mLineSize}};
        return true;
    }
    return false;
}

/// A line that is too long, which the kernel does not make, arrives in pieces that do not parse.
bool ModuleWalk::nextLine(std::string_view& line) noexcept
{
    for (;;) {
        const char* const begin = mRead.data() + mStart;
        const char* const end = mRead.data() + mEnd;
        const char* const newline = std::find(begin, end, '\n');
        if (newline != end || mEnd - mStart == mRead.size()) {
            line = {begin, static_cast<std::size_t>(newline - begin)};
            mStart += line.size() + (newline != end ? 1 : 0);
            return true;
        }
        if (!refill())
            return false;
    }
}

bool ModuleWalk::refill() noexcept
{
    std::copy(mRead.data() + mStart, mRead.data() + mEnd, mRead.data());
    mEnd -= mStart;
    mStart = 0;
    const ssize_t size =
        RetryOnEintr([&] { return ::read(mFile, mRead.data() + mEnd, mRead.size() - mEnd); });
    mEnd += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    return size > 0;
}

/// "7f10a0000000-7f10a0028000 r-xp 00001000 08:01 1234    /usr/lib/libx.so"
bool ModuleWalk::Parse(std::string_view line, Mapping& mapping) noexcept
{
    mapping.begin = TakeHex(line);
    if (!line.starts_with('-'))
        return false;
    line.remove_prefix(1);
    mapping.end = TakeHex(line);
    SkipField(line);
    if (line.size() < 4)
        return false;
    mapping.isReadable = line[0] == 'r';
    mapping.isExecutable = line[2] == 'x';
    SkipField(line);
    mapping.offset = TakeHex(line);
    for (int i = 0; i < 3; ++i)
        SkipField(line);
    mapping.path = line;
    return true;
}

/// Whether `mapping` is the code of the module that has begun before or begins here.
bool ModuleWalk::look(const Mapping& mapping) noexcept
{
    Elf64_Ehdr header;
    const bool mayBegin = mapping.offset == 0 && mapping.isReadable &&
                          (mapping.path.starts_with('/') || mapping.path == "[vdso]");
    if (mayBegin && CopyMemory(mapping.begin, header) && IsOurKind(header)) {
        mBegin = mapping.begin;
        mCode = 0;
        compose(mapping.begin, mapping.begin + header.e_phoff,
                std::min<unsigned int>(header.e_phnum, sMostHeaders), mapping.path);
    }
    return mapping.isExecutable && mCode >= mapping.begin && mCode < mapping.end;
}

/// The line of the module that begins at `begin`, where its code is, and where it ends.
void ModuleWalk::compose(std::uintptr_t begin, std::uintptr_t headers, unsigned int headerCount,
                         std::string_view path) noexcept
{
    Segments segments;
    if (!ReadSegments(headers, headerCount, segments))
        return;
    const std::uintptr_t bias = begin - segments.first;
    mCode = bias + segments.code;
    mModuleEnd = bias + segments.last;
    mLineSize = 0;
    append("Module 0x");
    appendHex(begin);
    append("-0x");
    appendHex(mModuleEnd);
    append(" build-id ");
    const std::size_t before = mLineSize;
    for (std::size_t i = 0; i < segments.noteCount && mLineSize == before; ++i)
        appendBuildId(bias + segments.notes[i].p_vaddr, segments.notes[i].p_memsz);
    if (mLineSize == before)
        append("none");
    append(" ");
    append(path);
    mLine[mLineSize] = '\n';
}

void ModuleWalk::append(std::string_view text) noexcept
{
    const std::size_t fitting = std::min(text.size(), mLine.size() - 1 - mLineSize);
    std::memcpy(mLine.data() + mLineSize, text.data(), fitting);
    mLineSize += fitting;
}

void ModuleWalk::appendHex(std::uintptr_t number) noexcept
{
    std::array<char, 16> text;
    append({text.data(), std::to_chars(text.data(), text.data() + text.size(), number, 16).ptr});
}

/// Appends nothing where the notes at the address `notes` have no identifier.
void ModuleWalk::appendBuildId(std::uintptr_t notes, std::size_t size) noexcept
{
    constexpr auto padded = [](std::size_t bytes) { return (bytes + 3) & ~std::size_t{3}; };
    for (std::size_t at = 0; at + sizeof(Elf64_Nhdr) <= size;) {
        Elf64_Nhdr note;
        std::array<char, 4> name;
        if (!CopyMemory(notes + at, note))
            return;
        const std::size_t text = at + sizeof note + padded(note.n_namesz);
        std::array<unsigned char, 64> id;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == name.size() &&
            CopyMemory(notes + at + sizeof note, name) &&
            std::memcmp(name.data(), ELF_NOTE_GNU, name.size()) == 0 &&
            note.n_descsz <= id.size() && CopyMemory(notes + text, id.data(), note.n_descsz)) {
            constexpr std::string_view digits = "0123456789abcdef";
            for (std::size_t i = 0; i < note.n_descsz; ++i)
                append(std::array{digits[id[i] >> 4U], digits[id[i] & 0xFU], '\0'}.data());
            return;
        }
        at = text + padded(note.n_descsz);
    }
}

}  // namespace ky::impl

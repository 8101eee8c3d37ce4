#include "ElfFile.h"

#include "fs/ScopedHandles.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>

namespace ky::tool {
namespace {

constexpr unsigned int sMostHeaders = 128;
constexpr std::size_t sMostNoteBytes = 65536;
constexpr std::uint64_t sPageBytes = 4096;

bool ReadAt(int fd, std::uint64_t at, void* to, std::size_t size)
{
    return impl::RetryOnEintr([&] { return ::pread(fd, to, size, static_cast<off_t>(at)); }) ==
           static_cast<ssize_t>(size);
}

bool IsRegularFile(const struct ::stat& status)
{
    return S_ISREG(status.st_mode);
}

std::string Hex(std::string_view bytes)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += digits[static_cast<unsigned char>(byte) >> 4U];
        text += digits[static_cast<unsigned char>(byte) & 0xFU];
    }
    return text;
}

std::string BuildId(std::string_view notes)
{
    constexpr auto padded = [](std::size_t size) { return (size + 3) & ~std::size_t{3}; };
    Elf64_Nhdr note;
    while (notes.size() >= sizeof note) {
        std::memcpy(&note, notes.data(), sizeof note);
        notes.remove_prefix(sizeof note);
        const std::size_t name = padded(note.n_namesz);
        if (name + note.n_descsz > notes.size())
            return {};
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof ELF_NOTE_GNU &&
            std::memcmp(notes.data(), ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) == 0)
            return Hex(notes.substr(name, note.n_descsz));
        notes.remove_prefix(std::min(name + padded(note.n_descsz), notes.size()));
    }
    return {};
}

void LookAtSegment(int fd, const Elf64_Phdr& segment, ElfFacts& facts)
{
    // The lowest, because in a file of debug information they all begin at the same offset.
    if (segment.p_type == PT_LOAD && segment.p_offset < sPageBytes)
        facts.firstAddress =
            std::min(facts.firstAddress, (segment.p_vaddr - segment.p_offset) & ~(sPageBytes - 1));
    if (segment.p_type != PT_NOTE || segment.p_filesz > sMostNoteBytes || !facts.buildId.empty())
        return;
    std::string notes(segment.p_filesz, '\0');
    if (ReadAt(fd, segment.p_offset, notes.data(), notes.size()))
        facts.buildId = BuildId(notes);
}

}  // namespace

ElfFacts ReadElfFile(const std::string& path, std::string& error)
{
    // Asked before the opening, which some devices notice.
    struct ::stat status = {};
    error = "no such file";
    if (path.empty() || path.front() != '/' || ::stat(path.c_str(), &status) != 0)
        return {};
    error = "not a regular file that can be read";
    if (!IsRegularFile(status))
        return {};
    const impl::ScopedFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file || ::fstat(file.get(), &status) != 0 || !IsRegularFile(status))
        return {};
    error = "not a program or shared object of this machine";
    Elf64_Ehdr header;
    if (!ReadAt(file.get(), 0, &header, sizeof header) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr))
        return {};
    error.clear();
    ElfFacts facts = {std::numeric_limits<std::uint64_t>::max(), {}};
    const unsigned int count = std::min<unsigned int>(header.e_phnum, sMostHeaders);
    for (unsigned int i = 0; i < count; ++i) {
        Elf64_Phdr segment;
        if (ReadAt(file.get(), header.e_phoff + i * sizeof segment, &segment, sizeof segment))
            LookAtSegment(file.get(), segment, facts);
    }
    return facts;
}

}  // namespace ky::tool

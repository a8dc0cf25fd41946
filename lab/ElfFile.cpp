#include "lab/ElfFile.h"

#include <fmt/format.h>

#include <elf.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <vector>

namespace lab {
namespace {

constexpr std::uint64_t longestInterpreter = 4096;

constexpr const char* buildAgain = "build or copy it again";
constexpr const char* buildForThisMachine = "give a build for x86-64 Linux";

class Reader {
public:
    explicit Reader(const std::string& path) : file_(path, std::ios::binary | std::ios::ate) {
        if (file_) size_ = static_cast<std::uint64_t>(file_.tellg());
    }

    bool holds(std::uint64_t offset, std::uint64_t length) const {
        return offset <= size_ && length <= size_ - offset;
    }

    bool read(std::uint64_t offset, void* place, std::uint64_t length) {
        if (!holds(offset, length)) return false;
        file_.seekg(static_cast<std::streamoff>(offset));
        return static_cast<bool>(file_.read(static_cast<char*>(place), static_cast<std::streamsize>(length)));
    }

private:
    std::ifstream file_;
    std::uint64_t size_ = 0;
};

std::string kindFault(const Elf64_Ehdr& header) {
    if (header.e_ident[EI_CLASS] != ELFCLASS64)
        return fmt::format("it is no program of 64 bits; {}", buildForThisMachine);
    if (header.e_ident[EI_DATA] != ELFDATA2LSB || header.e_machine != EM_X86_64)
        return fmt::format("it is a program of another machine (number {}); {}", header.e_machine,
                           buildForThisMachine);
    if (header.e_type != ET_EXEC && header.e_type != ET_DYN)
        return "it is an ELF file but no program; give one that is linked";
    if (header.e_phentsize != sizeof(Elf64_Phdr) || header.e_phnum == 0)
        return fmt::format("it is damaged (its header names no segments); {}", buildAgain);
    return {};
}

std::string segmentFault(const Reader& reader, const std::vector<Elf64_Phdr>& segments, std::uint64_t entry) {
    bool holdsEntry = false;
    for (const Elf64_Phdr& segment : segments) {
        if (segment.p_type == PT_NULL) continue;
        if (!reader.holds(segment.p_offset, segment.p_filesz))
            return fmt::format("it is cut short (a segment lies behind its end); {}", buildAgain);
        if (segment.p_type != PT_LOAD) continue;
        if (segment.p_filesz > segment.p_memsz || segment.p_vaddr + segment.p_memsz < segment.p_vaddr)
            return fmt::format("it is damaged (a segment has no room for its bytes); {}", buildAgain);
        holdsEntry |=
            (segment.p_flags & PF_X) && entry >= segment.p_vaddr && entry - segment.p_vaddr < segment.p_memsz;
    }
    return holdsEntry ? "" : fmt::format("it is damaged (it begins in no code of its own); {}", buildAgain);
}

std::optional<std::string> interpreterOf(Reader& reader, const std::vector<Elf64_Phdr>& segments) {
    for (const Elf64_Phdr& segment : segments) {
        if (segment.p_type != PT_INTERP) continue;
        if (segment.p_filesz == 0 || segment.p_filesz > longestInterpreter) return "";
        std::string name(segment.p_filesz, '\0');
        if (!reader.read(segment.p_offset, name.data(), name.size())) return "";
        return std::string(name.c_str()); // up to its zero
    }
    return std::nullopt;
}

} // namespace

bool isElf(const std::string& path) {
    char beginning[SELFMAG];
    return Reader(path).read(0, beginning, sizeof beginning) && std::memcmp(beginning, ELFMAG, SELFMAG) == 0;
}

ElfFile readElf(const std::string& path) {
    Reader reader(path);
    Elf64_Ehdr header{};
    if (!reader.read(0, &header, sizeof header))
        return {fmt::format("it is cut short (its header is not whole); {}", buildAgain), {}};
    std::string fault = kindFault(header);
    if (!fault.empty()) return {fault, {}};
    std::vector<Elf64_Phdr> segments(header.e_phnum);
    if (!reader.read(header.e_phoff, segments.data(), segments.size() * sizeof segments[0]))
        return {fmt::format("it is cut short (its table of segments is not whole); {}", buildAgain), {}};
    fault = segmentFault(reader, segments, header.e_entry);
    if (!fault.empty()) return {fault, {}};
    const std::optional<std::string> interpreter = interpreterOf(reader, segments);
    if (!interpreter)
        return {"it is linked without libraries, so no library can play its clock; link it with them", {}};
    if (access(interpreter->c_str(), X_OK) != 0)
        return {fmt::format("its interpreter \"{}\" cannot be run here; install it, or {}", *interpreter,
                            buildForThisMachine),
                {}};
    return {{}, *interpreter};
}

} // namespace lab

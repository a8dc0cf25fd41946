#include "lab/LabElfBuilder.h"

#include "support/TemporaryFolder.h"

#include <elf.h>

#include <cstring>
#include <filesystem>

namespace labtest {
namespace {

template <class Record>
std::string bytesOf(const Record& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

std::string segment(Elf64_Word type, std::size_t offset, std::size_t size) {
    Elf64_Phdr header{};
    header.p_type = type;
    header.p_flags = PF_R | PF_X;
    header.p_offset = header.p_vaddr = offset;
    header.p_filesz = header.p_memsz = size;
    return bytesOf(header);
}

std::string entry(std::int64_t tag, std::uint64_t value) {
    Elf64_Dyn dynamic{};
    dynamic.d_tag = tag;
    dynamic.d_un.d_val = value;
    return bytesOf(dynamic);
}

} // namespace

ElfBuilder& ElfBuilder::needs(const std::string& library) {
    names_.emplace_back(DT_NEEDED, library);
    return *this;
}

ElfBuilder& ElfBuilder::pathForAll(const std::string& folders) {
    names_.emplace_back(DT_RPATH, folders);
    return *this;
}

ElfBuilder& ElfBuilder::pathForItself(const std::string& folders) {
    names_.emplace_back(DT_RUNPATH, folders);
    return *this;
}

void ElfBuilder::write(const std::string& path, const std::string& interpreter) const {
    const Elf64_Half segments = interpreter.empty() ? 2 : 3;
    const std::size_t tables = sizeof(Elf64_Ehdr) + segments * sizeof(Elf64_Phdr);
    const std::size_t entries = (names_.size() + 2) * sizeof(Elf64_Dyn);
    std::string dynamic = entry(DT_STRTAB, tables + entries), texts = interpreter + '\0';
    for (const auto& [tag, name] : names_) {
        dynamic += entry(tag, texts.size());
        texts += name + '\0';
    }
    dynamic += entry(DT_NULL, 0);

    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_type = ET_DYN;
    header.e_machine = EM_X86_64;
    header.e_entry = header.e_phoff = sizeof header;
    header.e_phentsize = sizeof(Elf64_Phdr);
    header.e_phnum = segments;
    std::string bytes = bytesOf(header);
    bytes += segment(PT_LOAD, 0, tables + entries + texts.size());
    bytes += segment(PT_DYNAMIC, tables, entries);
    if (!interpreter.empty()) bytes += segment(PT_INTERP, tables + entries, interpreter.size() + 1);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    testsupport::writeAll(path, bytes + dynamic + texts);
}

} // namespace labtest

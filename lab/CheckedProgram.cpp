#include "lab/CheckedProgram.h"

#include "lab/Policy.h"

#include <fmt/format.h>

#include <elf.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

namespace lab {
namespace {

// A program without an interpreter takes no library in front of its own.
bool namesAnInterpreter(std::ifstream& file, const Elf64_Ehdr& header) {
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment{};
        file.seekg(static_cast<std::streamoff>(header.e_phoff + i * sizeof segment));
        if (!file.read(reinterpret_cast<char*>(&segment), sizeof segment)) return false;
        if (segment.p_type == PT_INTERP) return true;
    }
    return false;
}

bool isMachO(const Elf64_Ehdr& header) {
    constexpr std::uint32_t machO64 = 0xfeedfacf, x86_64 = 0x01000007;
    std::uint32_t words[2];
    std::memcpy(words, &header, sizeof words);
    return words[0] == machO64 && words[1] == x86_64;
}

bool isElf(const Elf64_Ehdr& header) {
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_ident[EI_CLASS] == ELFCLASS64 &&
           header.e_machine == EM_X86_64;
}

} // namespace

ProgramFormat programFormat(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    Elf64_Ehdr header{};
    if (!file.read(reinterpret_cast<char*>(&header), sizeof header)) return ProgramFormat::unusable;
    if (isMachO(header)) return ProgramFormat::machO;
    return isElf(header) && namesAnInterpreter(file, header) ? ProgramFormat::elf : ProgramFormat::unusable;
}

std::string checkedProgram(const std::string& path) {
    if (path.empty()) return {};
    const std::unique_ptr<char, void (*)(void*)> whole(realpath(path.c_str(), nullptr), std::free);
    if (!whole) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
    if (!std::filesystem::is_regular_file(path)) // one that waits for a writer would never open
        throw InputError(fmt::format("{}: it is no regular file", path));
    if (!std::ifstream(path)) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
    if (programFormat(path) == ProgramFormat::unusable)
        throw InputError(
            fmt::format("{}: it is neither a Mach-O file for x86-64 nor a program of this system", path));
    return whole.get();
}

} // namespace lab

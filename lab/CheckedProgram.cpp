#include "lab/CheckedProgram.h"

#include "lab/ElfFile.h"
#include "lab/Policy.h"
#include "lab/ProgramLibraries.h"
#include "machost/loader/MachOFile.h"

#include <fmt/format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

namespace lab {
namespace {

constexpr off_t largestProgram = off_t{1} << 30;

bool isMachO(const std::string& path) {
    constexpr std::uint32_t machO64 = 0xfeedfacf, x86_64 = 0x01000007;
    std::ifstream file(path, std::ios::binary);
    std::uint32_t words[2];
    return file.read(reinterpret_cast<char*>(words), sizeof words) && words[0] == machO64 &&
           words[1] == x86_64;
}

// One that waits for a writer would never open; one without the right is nobody's program, root's neither.
std::string faultOfFile(const std::string& path) {
    struct stat entry {};
    if (stat(path.c_str(), &entry) != 0) return std::strerror(errno);
    if (!S_ISREG(entry.st_mode)) return "it is no regular file";
    if (entry.st_size > largestProgram) return "it is larger than any build of the daemon; give such a build";
    if ((entry.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0)
        return "it may not be executed; chmod +x lets it";
    if (access(path.c_str(), R_OK) != 0)
        return std::string(std::strerror(errno)) + "; the lab reads it first, so let it be read";
    if (access(path.c_str(), X_OK) != 0)
        return std::string(std::strerror(errno)) + "; let it be executed, on a volume without noexec";
    return {};
}

std::string faultOfMachO(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    try {
        const machost::MachOFile checked(std::move(bytes));
        return {};
    } catch (const machost::FormatError& error) {
        return std::string(error.what()) + "; build or copy it again";
    }
}

std::string faultOf(const std::string& path) {
    const std::string fault = faultOfFile(path);
    if (!fault.empty()) return fault;
    switch (programFormat(path)) {
        case ProgramFormat::elf:
            return readElf(path).fault;
        case ProgramFormat::machO:
            return faultOfMachO(path);
        default:
            return "it is neither a Mach-O file for x86-64 nor a program of this system; give a build of the "
                   "daemon";
    }
}

} // namespace

ProgramFormat programFormat(const std::string& path) {
    if (isMachO(path)) return ProgramFormat::machO;
    return isElf(path) ? ProgramFormat::elf : ProgramFormat::unusable;
}

std::string checkedProgram(const std::string& path) {
    if (path.empty()) return {};
    const std::unique_ptr<char, void (*)(void*)> whole(realpath(path.c_str(), nullptr), std::free);
    const std::string fault = whole ? faultOf(whole.get()) : std::strerror(errno);
    if (!fault.empty()) throw InputError(fmt::format("{}: {}", path, fault));
    if (programFormat(whole.get()) == ProgramFormat::elf) librariesOf(whole.get());
    return whole.get();
}

} // namespace lab

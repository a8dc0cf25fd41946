#pragma once

#include <string>

namespace lab {

struct ElfFile {
    // What stands against running it on this machine, and the way out; empty for nothing.
    std::string fault;

    // The program that loads it and its libraries.
    std::string interpreter;
};

// Whether the file begins as an ELF file does, of whatever kind.
bool isElf(const std::string& path);

ElfFile readElf(const std::string& path);

} // namespace lab

#pragma once

#include <string>
#include <vector>

namespace lab {

struct ElfFile {
    // What stands against running or loading it on this machine, and the way out; empty for nothing. The rest counts
    // only without one.
    std::string fault;

    // Whether it is made for another machine, so that a search for a library passes it over.
    bool foreign = false;

    // The program that loads it and its libraries.
    std::string interpreter;

    // The names of its libraries, and where it wants them looked for: its RPATH and its RUNPATH.
    std::vector<std::string> needed;
    std::string pathForAll;
    std::string pathForItself;

    // Its name as a library.
    std::string name;

    // Whether the libraries are found by where it lies itself.
    bool looksBesideItself = false;
};

// Whether the file begins as an ELF file does, of whatever kind.
bool isElf(const std::string& path);

// Neither runs anything of it, nor waits for anybody.
ElfFile readElf(const std::string& program);
ElfFile readElfLibrary(const std::string& library);

} // namespace lab

#pragma once

// Builds small ELF files that have nothing but the names of libraries and folders: enough to be searched, not to run.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace labtest {

class ElfBuilder {
public:
    ElfBuilder& needs(const std::string& library);
    ElfBuilder& pathForAll(const std::string& folders);
    ElfBuilder& pathForItself(const std::string& folders);

    // A library, or, with glibc's interpreter, a program. Writes it, and the folders above it.
    void writeLibrary(const std::string& path) const { write(path, ""); }
    void writeProgram(const std::string& path) const { write(path, "/lib64/ld-linux-x86-64.so.2"); }

private:
    void write(const std::string& path, const std::string& interpreter) const;

    std::vector<std::pair<std::int64_t, std::string>> names_; // by the tags of their entries
};

} // namespace labtest

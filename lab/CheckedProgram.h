#pragma once

#include <string>

namespace lab {

// How a program is run that the lab is given.
enum class ProgramFormat {
    unusable,
    machO, // for x86-64: under machost
    elf,   // as it stands
};

// Unusable too for a file that cannot be read.
ProgramFormat programFormat(const std::string& path);

// The whole path of a program that is to run in place of this build's own; empty for an empty one. Throws InputError
// with the path, the reason and the way out for one that cannot be run: not executable, cut short or damaged, for
// another machine, without its interpreter or a library.
std::string checkedProgram(const std::string& path);

} // namespace lab

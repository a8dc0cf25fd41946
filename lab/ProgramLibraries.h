#pragma once

#include <string>
#include <vector>

namespace lab {

// The files that the ELF program's interpreter loads with it: the interpreter itself, and for glibc's the libraries, as
// it would look for them. Nothing is run for that. Throws InputError, which names the program, for a library that is
// not found or cannot be loaded.
std::vector<std::string> librariesOf(const std::string& program);

} // namespace lab

#pragma once

#include <string>
#include <vector>

namespace lab {

// The files that the ELF program's interpreter loads with it, as the interpreter finds them, which is asked itself;
// nothing of the program runs. Only its interpreter for one that is not this system's own. Throws InputError, which
// names the program, for a library that is not found and for what the interpreter refuses.
std::vector<std::string> librariesOf(const std::string& program);

} // namespace lab

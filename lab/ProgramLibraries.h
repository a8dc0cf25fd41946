#pragma once

#include <string>
#include <vector>

namespace lab {

// The files that the ELF program's interpreter loads with it, as the interpreter finds them, which is asked itself:
// it runs, outside of the view, and so do libraries by which the program has its own loading audited. Throws InputError,
// which names the program, for a library that is not found and for what the interpreter refuses.
std::vector<std::string> librariesOf(const std::string& program);

} // namespace lab

#pragma once

#include <string>

namespace machost {

// Loads the Mach-O at `path` and runs it with these words, the first of which it takes for its name; ends the process
// as it ends. Throws std::runtime_error, with nothing run, for a file that cannot be read or loaded.
[[noreturn]] void runProgram(const std::string& path, int argc, char** argv);

} // namespace machost

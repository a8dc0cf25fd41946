#pragma once

// The program under test: this build's own, or, when the environment variable OSTLER_PROGRAM names one, that Mach-O
// under machost. The services that are in force are played to both.

#include <string>
#include <vector>

namespace testsupport {

// The Mach-O that is under test; empty for this build's own program.
std::string macProgram();

// A path as the program under test writes it: the Mac's does not know the test's root.
std::string shownPath(const std::string& path);

// Becomes the program, run with these words, the first of which is its name, below the test's root. To be called in a
// forked child that has one thread.
[[noreturn]] void becomeShippedProgram(const std::vector<std::string>& words);

} // namespace testsupport

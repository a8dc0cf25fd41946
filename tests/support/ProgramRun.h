#pragma once

// Runs the whole program in a forked child below the test's root, as main would, and tells what it did.

#include <string>
#include <vector>

namespace testsupport {

struct ProgramRun {
    // The run became the daemon; it was killed as soon as its start steps were under way.
    bool startedDaemon = false;

    // Exit status; -1 for a run that was killed.
    int status = -1;

    // Standard output.
    std::string output;
};

// Runs the program with these arguments behind its name. The root must be set; it is also the working
// directory, and nothing is found on the child's PATH. Gives a run up after five real seconds.
ProgramRun runProgram(const std::vector<std::string>& arguments);

} // namespace testsupport

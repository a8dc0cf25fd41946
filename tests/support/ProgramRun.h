#pragma once

// Runs the whole program in a forked child below the test's root, as main would, and tells what it did.

#include "support/PlayedInterfaces.h"

#include <map>
#include <string>
#include <vector>

namespace testsupport {

// What a run finds around it: unless a test says more, no program, no interface, and no name.
struct ProgramWorld {
    // The child's PATH; the root if empty, in which there are no programs.
    std::string path;

    // The machine's network interfaces.
    EntryBuilder interfaces;

    // The names that are known, with their IPv4 addresses.
    std::map<std::string, std::string> names;
};

struct ProgramRun {
    // The run became the daemon; it was killed as soon as its start steps were under way.
    bool startedDaemon = false;

    // Exit status; -1 for a run that was killed.
    int status = -1;

    // Standard output; the daemon's up to the moment when it was killed.
    std::string output;
};

// Runs the program with these arguments behind its name. The root must be set; it is also the working
// directory. Gives up a run without a word from it. A run in which a service was called
// that nobody played has status 97.
ProgramRun runProgram(const std::vector<std::string>& arguments, const ProgramWorld& world = {});

// The program's path, as it is started.
std::string programPath();

} // namespace testsupport

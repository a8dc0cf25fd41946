#pragma once

// `fernhill-lab replay`: sets the stage under a scratch root, plays the captures, and says how it went.

#include <cstddef>
#include <string>
#include <vector>

namespace lab {

struct ReplayOptions {
    std::vector<std::string> captures;
    std::string policy;
    std::string json;
    std::string asked;
    std::string report;
    std::string csv;
    std::size_t rows = 0; // of the table; 0 shows all as they come
    std::string root;
    std::string program; // the build of the daemon to run; empty for the lab's own
    bool blockOnFailure = false;
};

// Runs a whole replay: the exit status of the program. Throws InputError for unusable input.
int replay(const ReplayOptions& options);

} // namespace lab

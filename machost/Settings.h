#pragma once

// How this process was asked to run. Set once by main, before the program runs; read by all shims.

#include <string>

namespace machost {

struct Settings {
    std::string program; // the Mach-O's path
    std::string argv0;   // what the program takes for its own name
    std::string root;    // the folder in front of the Mac's fixed paths; empty for none
    std::string world;   // the socket of a played world; empty for this machine as it is
};

Settings& settings();

} // namespace machost

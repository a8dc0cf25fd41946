#pragma once

// `fernhill-lab divert`: real programs meet the daemon, over networks of the lab's own.

#include <string>
#include <vector>

namespace lab {

// What stands between the client and the servers.
enum class Way { daemon, queue, nothing };

struct DivertOptions {
    std::vector<std::string> command; // none for a shell
    std::string policy;
    std::string root;
    std::string program; // a Mach-O, which runs under machost; empty for this build's own program
    std::string table;   // where the table goes: a file, "-" for standard output, empty for standard error
    std::string json;    // a file for one object a line for each connection
    std::string csv;     // a file for a line for each connection
    std::string record;  // a capture file for the packets as they are diverted
    std::string watch;   // a file for one object a second: what the daemon holds
    Way way = Way::daemon;
    int logLevel = 0;       // of the daemon
    int restartSeconds = 0; // the agent goes and comes back that often; 0 for never
    bool blockOnFailure = false;
    bool withoutAgent = false;
    bool hasTerminal = false; // the command is to have the terminal that is standard input
};

// Runs the command: its exit status, 1 when the daemon failed it, or 2 where this machine or the build cannot. Throws
// InputError for unusable input.
int divert(const DivertOptions& options);

} // namespace lab

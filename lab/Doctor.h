#pragma once

// `fernhill-lab doctor`: what of the lab can run on this machine, and what to install. Changes nothing: what has to be
// tried is tried in a child with namespaces of its own, which go with it.

#include <map>
#include <set>
#include <string>
#include <vector>

namespace lab {

// What was found of the machine; a lack is told in a few words, empty where there is none.
struct Machine {
    std::string root;               // the rights of root
    std::string scratch;            // a scratch folder whose path is short enough
    std::string ownNetwork;         // a network of a process's own, for the fixed ports
    std::string ports;              // the fixed ports; of importance without a network of one's own
    std::string namespaces;         // processes, mounts and networks of one's own
    std::string queue;              // the kernel's packet queue, and a build that can use it
    std::string rules;              // rules that send packets there
    std::string machost;            // what runs the cross-built program
    std::string macProgram;         // that program
    std::set<std::string> programs; // of those that the lab may call: those that are there
};

// The programs that the lab, or a script around it, calls, with their Debian packages.
const std::map<std::string, std::string>& calledPrograms();

// Looks at this machine.
Machine lookAtMachine();

// One thing that something of the lab needs.
struct Need {
    std::string name;
    std::string lack;   // empty: it is there
    std::string remedy; // empty where it is there
};

// One thing that the lab can do, and what it needs.
struct Ability {
    std::string what;
    std::vector<Need> needs;
    bool runs() const;
};

std::vector<Ability> abilitiesOf(const Machine& machine);

struct DoctorOptions {
    std::string csv; // a file, "-" for standard output in place of the table
    bool json = false;
};

// Prints what the options ask for: 0 when all of the lab runs here, else 1. Throws InputError.
int doctor(const DoctorOptions& options);

// Why this build or this kernel has no packet queue, tried in the network namespace of the caller; empty where it has.
std::string queueLack();

} // namespace lab

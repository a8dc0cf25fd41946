#pragma once

// Runs fernhill-lab as a program of its own and tells what came of it.

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace labtest {

struct LabRun {
    int status = -1; // exit status; -1 for a signal
    std::string out;
    std::string err;
    int signal = 0; // that ended it
};

// Runs the program with these arguments. `meanwhile` is called with its process id once it has been started.
LabRun runLab(const std::vector<std::string>& arguments, const std::function<void(pid_t)>& meanwhile = {});

// Waits until the process has a child, for at most five seconds; its process id, or 0.
pid_t awaitChildOf(pid_t parent);

// The same for the daemon that a lab has started: a child that is not the first process of a namespace.
pid_t awaitDaemonOf(pid_t lab);

std::vector<std::string> linesOf(const std::string& text);

} // namespace labtest

#pragma once

// Programs of the system that a live run needs: tools that do one thing and end, and servers beside it.

#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

namespace lab {

// What this machine lacks, or does not grant, for a live run; one line.
class UnavailableError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Runs a program of PATH to its end with `input` on its standard input. Throws UnavailableError, with the first line
// of what it wrote on standard error, when it cannot be started or its status is not 0.
void runTool(const std::vector<std::string>& words, const std::string& input = {});

// Starts a program of PATH in a session of its own, with its output going to a file. It ends with the process
// namespace. Throws UnavailableError when it cannot be started.
pid_t startHelper(const std::vector<std::string>& words, const std::string& output);

// Whether such a program has ended, which is told once.
bool helperHasEnded(pid_t helper);

// The first line with text in what it wrote, or that there is none.
std::string firstWords(const std::string& output);

} // namespace lab

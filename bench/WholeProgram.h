#pragma once

// Whole programs, run as on a machine of their own: this process sees a root folder with nothing but the system in it,
// and plays the kernel extension there.

#include "bench/Turns.h"
#include "bench/Workers.h"

#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace bench {

// Moves this process into a root and a network of its own. There are the programs /fernhill and /bare.
void enterOwnMachine();

// Runs a program to its end and tells what that cost.
Cost runToEnd(const std::string& program, const std::string& word);

// The control sockets of the extension, below the root.
class ControlSockets {
public:
    ControlSockets();
    ~ControlSockets();

    ControlSockets(const ControlSockets&) = delete;
    ControlSockets& operator=(const ControlSockets&) = delete;

private:
    friend class RunningProgram;

    void serveOptions() const;

    int inbound_ = -1;
    int outbound_ = -1;
    int options_ = -1;
    std::thread server_;
};

// A program that answers at both control sockets, until the end of the scope.
class RunningProgram {
public:
    // Starts it and has it answer one packet each way.
    RunningProgram(const ControlSockets& sockets, const std::string& program, const std::string& record);
    ~RunningProgram();

    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    // From the start of the program to the first answer.
    Cost untilFirstVerdict() const { return start_; }

    void answer(bool inbound, const std::vector<std::string>& records, long count) const;

    double residentBytes() const { return bench::residentBytes(process_); }

private:
    pid_t process_ = -1;
    int inbound_ = -1;
    int outbound_ = -1;
    Cost start_;
};

} // namespace bench

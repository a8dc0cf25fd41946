#pragma once

// The command of a live run, in the client's network.

#include <string>
#include <sys/types.h>
#include <vector>

namespace lab {

class ClientCommand {
public:
    // Starts the words, or a shell for none; with `hasTerminal` as the foreground of the terminal that is standard
    // input. Throws std::runtime_error.
    ClientCommand(const std::vector<std::string>& words, bool hasTerminal);
    ~ClientCommand();

    ClientCommand(const ClientCommand&) = delete;
    ClientCommand& operator=(const ClientCommand&) = delete;

    // Waits for its end; false after that many milliseconds. A command that the terminal's key has stopped goes on:
    // whoever sits there could wake neither it nor the run.
    bool await(int milliseconds);

    // Its exit status, or 128 and the number of the signal that ended it. Once await has said so.
    int status() const { return status_; }

private:
    void goOn() const;

    pid_t pid_ = -1;
    int ending_ = -1; // can be read when it has ended
    int status_ = 0;
};

} // namespace lab

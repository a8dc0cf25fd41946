#pragma once

// The command of a live run, in the client's network.

#include <string>
#include <sys/types.h>
#include <vector>

namespace lab {

class ClientCommand {
public:
    // Starts the words, or a shell for none, as the terminal's foreground if standard input is a terminal. Throws
    // std::runtime_error.
    explicit ClientCommand(const std::vector<std::string>& words);
    ~ClientCommand();

    ClientCommand(const ClientCommand&) = delete;
    ClientCommand& operator=(const ClientCommand&) = delete;

    // Waits for its end; false after that many milliseconds.
    bool await(int milliseconds);

    // Its exit status, or 128 and the number of the signal that ended it. Once await has said so.
    int status() const { return status_; }

private:
    pid_t pid_ = -1;
    int ending_ = -1; // can be read when it has ended
    int status_ = 0;
};

} // namespace lab

#pragma once

// tcpdump beside a live run: writes the diverted packets to a capture file, as they come to be diverted.

#include <string>
#include <sys/types.h>

namespace lab {

class Recorder {
public:
    // Starts recording what the rules send to the recorded group; an empty path records nothing. Throws
    // UnavailableError.
    explicit Recorder(const std::string& path);

    // Ends the file.
    ~Recorder();

    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

private:
    pid_t program_ = -1;
};

} // namespace lab

#pragma once

// The folder that stands in front of all of the daemon's fixed paths while the lab runs it.

#include <string>

namespace lab {

class RootFolder {
public:
    // Makes the folder at `path`, which is kept, or, for an empty path, a temporary one that goes with the
    // object. Temporary ones of this user whose lab was killed go then too. Throws InputError.
    explicit RootFolder(const std::string& path);
    ~RootFolder();

    RootFolder(const RootFolder&) = delete;
    RootFolder& operator=(const RootFolder&) = delete;

    const std::string& path() const { return path_; }

    // Where the stand-ins for system commands lie.
    std::string programs() const { return path_ + "/bin"; }

    // Where the daemon's output goes.
    std::string output() const { return path_ + "/daemon-output.txt"; }

    // The last lines of that output.
    std::string outputTail() const;

    // Writes the daemon's configuration file. Throws InputError.
    void configure(bool blockOnFailure, int logLevel) const;

private:
    std::string path_;
    bool kept_;
    int lock_ = -1; // on a temporary folder: it is in use
};

} // namespace lab

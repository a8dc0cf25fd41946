#pragma once

// The folder that stands in front of all of the daemon's fixed paths while the lab runs it.

#include "lab/Descriptor.h"

#include <string>
#include <sys/types.h>

namespace lab {

class RootFolder {
public:
    // Makes the folder at `path`, which is kept, or, for an empty path, a temporary one that goes with the
    // object. Temporary ones of this user whose lab was killed go then too. Follows no link in the folder. Throws
    // InputError.
    explicit RootFolder(const std::string& path);
    ~RootFolder();

    RootFolder(const RootFolder&) = delete;
    RootFolder& operator=(const RootFolder&) = delete;

    // Whole, and without links.
    const std::string& path() const { return path_; }

    // Where the stand-ins for system commands lie.
    std::string programs() const { return path_ + "/bin"; }

    // Where the daemon's output goes.
    std::string output() const;

    // Opens it anew for writing; none when that fails.
    Descriptor openOutput() const;

    // The last lines of that output, without what would steer a terminal.
    std::string outputTail() const;

    // Writes the daemon's configuration file. Throws InputError.
    void configure(bool blockOnFailure, int logLevel) const;

    // Removes a temporary folder with all that is in it, before its time.
    void remove() const;

private:
    void writeWhole(const std::string& name, const std::string& text, mode_t mode) const;

    std::string path_;
    bool kept_;
    Descriptor folder_; // of a temporary one with a lock, which says that it is in use
};

} // namespace lab

#pragma once

// Programs that stand in for the system's own: shell scripts in a folder that is first on the process's PATH.
// Each call is recorded with its words.

#include "support/TemporaryFolder.h"

#include <string>
#include <vector>

namespace testsupport {

class StandInPrograms {
public:
    // Puts the folder in front of PATH.
    StandInPrograms();

    // Makes, or replaces, the program `name`, which runs these shell commands.
    void add(const std::string& name, const std::string& commands);

    // The same for a program at a fixed path, which is recorded by the last component of its path, or by
    // `recordedAs`.
    void addAt(const std::string& path, const std::string& commands, const std::string& recordedAs = {});

    // The calls so far, oldest first: the program's name and its words, with a blank between.
    std::vector<std::string> calls() const;

    const std::string& folder() const { return folder_.path(); }

private:
    TemporaryFolder folder_;
};

} // namespace testsupport

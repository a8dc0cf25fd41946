#pragma once

// What the forked children of a test have seen, each in a run of its own, for the test to hold against all that there is
// to see.

#include "support/TemporaryFolder.h"

#include <set>
#include <string>

namespace testsupport {

class ChildNotes {
public:
    // In a child: notes one line.
    void add(const std::string& line) const;

    // Every line that was noted, once.
    std::set<std::string> seen() const;

private:
    TemporaryFolder folder_;
};

} // namespace testsupport

#pragma once

// Counts how often the calling thread asks the system about a file, and comes in between. Counts nothing in a build
// under a checker, which needs the place of these functions for itself.

#include <cstddef>
#include <functional>

namespace testsupport {

class FileCalls {
public:
    // Counts from here on. One at a time on a thread.
    FileCalls();
    ~FileCalls();

    FileCalls(const FileCalls&) = delete;
    FileCalls& operator=(const FileCalls&) = delete;

    // Calls of stat and lstat since then, and of fstat.
    int byPath() const;
    int byDescriptor() const;

    // Whether every descriptor that was asked about was closed to programs.
    bool allClosedOnExec() const;

    // Runs right before the next fstat, right behind it, or right before each.
    void beforeNextFstat(std::function<void()> action);
    void behindNextFstat(std::function<void()> action);
    void beforeEachFstat(std::function<void()> action);

    // From here on a write takes at most so many bytes, and every second one is interrupted before it takes any.
    void shortenWrites(std::size_t most);

    // Writes that took bytes since then.
    int writes() const;
};

} // namespace testsupport

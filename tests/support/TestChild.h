#pragma once

// Tests that must not leave their marks on this process, or that never end, run in a forked child.

#include <functional>

namespace testsupport {

// Runs `body` in a forked child. True when it came to its end with no test failure.
bool passesInChild(const std::function<void()>& body);

// For a forked child: runs `body` and ends the process with status 0 if nothing failed; kills it should the body not
// end.
[[noreturn]] void endAfter(const std::function<void()>& body);

// A forked child that runs `body` until it is killed at the end of the scope.
class EndlessChild {
public:
    explicit EndlessChild(const std::function<void()>& body);
    ~EndlessChild();

    EndlessChild(const EndlessChild&) = delete;
    EndlessChild& operator=(const EndlessChild&) = delete;

private:
    int process_;
};

} // namespace testsupport

#pragma once

// A forked child that the test lets go, and the shortest program that it can become.

#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

// A child that waits for letGo before it does anything.
class WaitingChild {
public:
    template <class Operation>
    explicit WaitingChild(Operation operation) {
        if (pipe(ends_) != 0) return;
        child_ = fork();
        if (child_ != 0) return;
        char byte;
        close(ends_[1]);
        const ssize_t got = read(ends_[0], &byte, 1);
        operation();
        _exit(got == 0 ? 0 : 1);
    }
    ~WaitingChild() {
        close(ends_[0]);
        waitpid(child_, nullptr, 0);
    }
    void letGo() { close(ends_[1]); }
    pid_t process() const { return child_; }

private:
    int ends_[2] = {-1, -1};
    pid_t child_ = -1;
};

// Becomes a program that ends at once.
inline void execTrue() { execl("/bin/sh", "sh", "-c", ":", static_cast<char*>(nullptr)); }

} // namespace testsupport

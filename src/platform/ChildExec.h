#pragma once

// Tells a parent when the child that it forked has replaced itself with another program. The parent prepares
// the sign, forks, and asks; it belongs to one thread, and the child's copy to the child.

#include <sys/types.h>

namespace platform {

enum class ExecState {
    notYet,   // the child has not called exec; ask again
    executed, // the child is the other program now, or was and has ended
    ended,    // there is no such child, and no exec was seen
};

class ExecSign {
public:
    // Before the fork.
    ExecSign();
    ~ExecSign();

    ExecSign(const ExecSign&) = delete;
    ExecSign& operator=(const ExecSign&) = delete;

    // In the child, when no exec took place and it is about to exit.
    void execFailed();

    // In the parent: what has become of `child`, the result of fork. Also makes the child the leader of a
    // process group of its own for as long as it has not called exec.
    ExecState look(pid_t child);

private:
    // For the backend that needs a pipe.
    [[maybe_unused]] int readEnd_ = -1;
    [[maybe_unused]] int writeEnd_ = -1;
    [[maybe_unused]] bool failed_ = false;
};

} // namespace platform

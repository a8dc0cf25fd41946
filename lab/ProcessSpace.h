#pragma once

// The processes of a program that the lab is given: a pid namespace, where the system grants one, whose first process
// is the lab's. When the space is ended, or the lab itself ends, killed or not, the kernel kills all that is in it, with
// what has gone into the background.

#include "lab/Descriptor.h"

#include <functional>
#include <sys/types.h>

namespace lab {

// Forks a child that calls `run`, which does not return, and is killed when this thread ends.
pid_t forkFollower(const std::function<void()>& run);

class ProcessSpace {
public:
    ProcessSpace() = default;
    ~ProcessSpace();

    ProcessSpace(const ProcessSpace&) = delete;
    ProcessSpace& operator=(const ProcessSpace&) = delete;

    // Forks a child of this process, to be waited for as any other, that calls `run` in a space of its own and in new
    // namespaces of these kinds (CLONE_NEWNS, ...), with 0; in a plain follower, with the error's number, where the
    // system grants none. `run` does not return. To be called once, while the process has one thread.
    pid_t start(int kinds, const std::function<void(int reason)>& run);

    // Kills what is left in the space and waits until it has gone. The child must have been waited for.
    void end();

private:
    Descriptor lifeLine_;
    pid_t first_ = -1;
};

} // namespace lab

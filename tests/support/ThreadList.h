#pragma once

// The threads that a forked process runs, each known by the function that it was started with. The list lies
// in memory that parent and child share. A program that uses it is linked with --wrap=pthread_create, so that
// every thread of the code under test comes by.

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace testsupport {

class ThreadList {
public:
    // Made before the fork.
    ThreadList();

    ThreadList(const ThreadList&) = delete;
    ThreadList& operator=(const ThreadList&) = delete;

    // In the child: has its threads put on the list from now on, the calling one as "main".
    void record();

    struct Thread {
        pid_t number;
        std::string function; // without its namespace and arguments
    };

    // In the parent: the threads that live now, in the order of their start.
    std::vector<Thread> living() const;

    // In the parent: what a thread of the process waits in: "recv", "sleep", "event queue", "semaphore",
    // "open", "signal" or "run loop", which is a read of the played services' pipe; "nothing" or "something else"
    // for the rest, "unknown" where the system does not tell.
    static std::string waitOf(pid_t process, pid_t thread);

private:
    struct Shared;
    Shared* shared_;

    // Symbols of this program by their addresses.
    mutable std::map<std::uintptr_t, std::string> functions_;
};

} // namespace testsupport

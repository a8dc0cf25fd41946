#pragma once

// What a process holds, as the system counts it.

#include <sys/types.h>

namespace lab {

struct ProcessFigures {
    long threads = 0;
    long descriptors = 0;
    long residentKilobytes = 0;
};

// All zero for a process that is not there.
ProcessFigures figuresOf(pid_t process);

} // namespace lab

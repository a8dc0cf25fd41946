#pragma once

// Whether a process still has something to do, on a machine that may take its time with it.

#include <sys/types.h>

#include <chrono>

namespace testsupport {

// Whether every thread of the process, and of all processes that it has started, waits for something. True where the
// system does not tell.
bool isAtRest(pid_t process);

// What it has used of the processor so far, without those that it has started; none where the system does not tell.
std::chrono::nanoseconds processorTime(pid_t process);

} // namespace testsupport

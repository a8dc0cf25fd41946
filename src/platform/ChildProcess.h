#pragma once

// Child processes, for programs and commands.

#include <sys/types.h>

namespace platform {

// Forks, as the system's own does; the child has its signals as restoreChildSignals leaves them. Never while the
// process exits: libraries then take away what they have fork do for them, and a fork meanwhile would abort the
// exit. A thread that comes here too late waits for the end. Any thread.
pid_t forkChild();

// Runs the command as `system` does and waits for it: meanwhile SIGINT and SIGQUIT do nothing here. Unlike there,
// the command starts with all signals let in, whatever the calling thread blocks. Any thread.
void runShellCommand(const char* command);

} // namespace platform

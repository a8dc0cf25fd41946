#pragma once

// What a forked child finds: on the Mac the locks behind the system's calls are the kernel's, of which a child of one
// thread holds none, and a kernel queue is not handed down.

namespace machost::libsystem {

// Before each call that forks or registers handlers of forks: the system's locks are taken behind the program's own
// handlers, which may call the system. Any thread.
void prepareForks();

} // namespace machost::libsystem

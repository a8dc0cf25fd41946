#pragma once

// A build of the daemon for this system, run as it stands: nothing in it knows of the lab. It sees this machine for
// reading only, with the root's folders in place of those that the daemon writes to, nobody at the console, no names
// but localhost and addresses, and the played clock.

#include "lab/RootFolder.h"

#include <string>
#include <vector>

namespace lab {

// The namespaces that its process must have of its own, beside one of processes.
extern const int systemProgramNamespaces;

// Becomes the ELF program, run with these words (the first is what it takes for its name). `clock` is the descriptor of
// the played clock's memory, or -1 for the machine's own time. What it writes elsewhere than below the root's /Library,
// /var/run/fernhill, /usr/local/bin, /usr/local/etc and /system goes with it. It holds no other descriptor of this
// process but standard output and error, no terminal, and of root's rights those over files, owners and its own
// processes. Throws when it cannot be run; the process is good for nothing else then. To be called in a process with
// one thread.
[[noreturn]] void becomeSystemProgram(const std::string& program, const RootFolder& root,
                                      const std::vector<std::string>& words, int clock);

} // namespace lab

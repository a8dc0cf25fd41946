#pragma once

// A system of the lab's own inside this machine: own processes, network, mounts and /run.

#include <functional>
#include <string>

namespace lab {

// The folder of such a system that holds whatever the lab writes while it runs.
extern const char* const ownFolder;

// Whether a path leads into /run, of which such a system has one of its own that ends with it.
bool liesInRun(const std::string& path);

// Whether this process has the terminal that is its standard input. Inside such a system that cannot be told.
bool holdsTerminal();

// Runs `body` in a child that has process, network, mount and IPC namespaces of its own, with an empty /run, and
// answers with its result as an exit status. When the child, or this process, ends, in whatever way, the kernel ends
// all processes inside and takes down networks and mounts. To be called before any thread is started. Throws
// UnavailableError where this process may not do that.
int runInOwnSystem(const std::function<int()>& body);

} // namespace lab

#pragma once

// The network that the program sees: this machine's, or what a world plays. Any thread.

#include <sys/socket.h>

#include <optional>
#include <string>
#include <vector>

namespace machost::world {

struct Host {
    std::string name;
    std::vector<std::string> aliases;
    std::vector<std::string> addresses; // as on the wire
};

// What a name stands for; nothing where it stands for nothing. The family by this system's number.
std::optional<Host> lookUp(const std::string& name, int family);

// The interfaces as the Mac lists them: for each the entry of its link, then those of its addresses.
std::string interfaceEntries();

// Whether the world holds this connection back; then it is made later, and until then the socket is connecting.
bool connectLate(int descriptor, const sockaddr_storage& address, socklen_t length);
bool isHeldBack(int descriptor);

// Blocks until the socket's connection has been let go.
void awaitRelease(int descriptor);

} // namespace machost::world

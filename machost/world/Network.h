#pragma once

// The network that the program sees: this machine's, or what a world plays. Any thread.

#include <sys/socket.h>

#include <functional>
#include <mutex>
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

// Whether the world holds this connection back. Then it is made, on a thread of its own, once the world lets it go,
// and until then the socket counts as connecting; `released` is called behind that with what connect answered.
bool connectLate(int descriptor, const sockaddr_storage& address, socklen_t length,
                 const std::function<void(int error)>& released);
bool isHeldBack(int descriptor);

// A descriptor that was closed, or put in another's place: its connection is not made any more.
void forgetHeldBack(int descriptor);

// Held around a fork, so that the child finds the lock free.
std::unique_lock<std::mutex> lockHeldBack();

} // namespace machost::world

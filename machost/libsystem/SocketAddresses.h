#pragma once

// Socket addresses of the Mac, which begin with their length and have family numbers of their own, in this system's
// form and back.

#include "machost/libsystem/SocketLayouts.h"

#include <sys/socket.h>

namespace machost::libsystem {

// The counterpart of a family's number; -1 where the other system has none.
int hostFamily(int mac);
int macFamily(int host);

// This system's form of an address; false, with errno, for one that has none.
bool hostAddress(const mac::Address* address, socklen_t length, sockaddr_storage& host,
                 socklen_t& hostLength);

// Writes the Mac's form into the caller's room, cut to its length, and sets the length to that of the whole.
void macAddress(const sockaddr_storage& host, mac::Address* address, socklen_t* length);

} // namespace machost::libsystem

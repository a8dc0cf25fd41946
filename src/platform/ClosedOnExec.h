#pragma once

// Sockets that no program which the daemon starts inherits. Any thread.

#include <sys/socket.h>

namespace platform {

// As socket: a descriptor that the caller owns, or -1 with errno.
int closedOnExecSocket(int domain, int type, int protocol);

// As accept: the next connection of `listener`, which the caller owns, or -1 with errno.
int closedOnExecAccept(int listener, sockaddr* address, socklen_t* length);

} // namespace platform

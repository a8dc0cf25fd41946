#pragma once

// Sockets of the tests that no program they start inherits.

namespace testsupport {

// A stream socket of the IPv4 family; -1 with errno if there is none.
int streamSocket();

// The next connection of a listening socket, as accept gives it.
int acceptedSocket(int listener);

} // namespace testsupport

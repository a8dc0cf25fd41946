#pragma once

// IPv4 socket addresses, whose layout differs between systems: some have a length byte in front.

#include <netinet/in.h>

namespace platform {

// An address record with length (where there is one), family and port filled in and the rest zero. `port` is
// in host order.
sockaddr_in internetAddress(in_addr address, int port);

} // namespace platform

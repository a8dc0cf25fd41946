#pragma once

// A network of the process's own, in which one connection may follow the other without end, and a port to listen on there.

#include "fuzz/Require.h"
#include "lab/PrivateNetwork.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <fstream>

namespace fuzzing {

// False where the system gives none. Closed connections are forgotten at once: kept for a minute, as they are else, they
// would soon take all ports.
inline bool enterPrivateLoopback() {
    if (!lab::enterPrivateNetwork()) return false;
    std::ofstream closed("/proc/sys/net/ipv4/tcp_max_tw_buckets");
    return static_cast<bool>((closed << 0).flush());
}

// A socket that takes connections to 127.0.0.1 on the port; the caller owns it.
inline int listenOnLoopback(std::uint16_t port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    require(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
    require(listen(listener, 16) == 0);
    return listener;
}

} // namespace fuzzing

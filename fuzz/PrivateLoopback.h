#pragma once

// A network of the process's own, in which one connection may follow the other without end.

#include "lab/PrivateNetwork.h"

#include <fstream>

namespace fuzzing {

// False where the system gives none. Closed connections are forgotten at once: kept for a minute, as they are else, they
// would soon take all ports.
inline bool enterPrivateLoopback() {
    if (!lab::enterPrivateNetwork()) return false;
    std::ofstream closed("/proc/sys/net/ipv4/tcp_max_tw_buckets");
    return static_cast<bool>((closed << 0).flush());
}

} // namespace fuzzing

#pragma once

// What the shims must remember of descriptors because this system does not have it. Any thread.

#include <cstdint>
#include <mutex>

namespace machost::libsystem {

struct SocketState {
    bool control = false;        // a socket of the kernel's controls
    std::uint32_t controlId = 0; // the control that it is connected to
    bool noSignal = false;       // a write after the peer's end is to raise no signal
    bool unconnected = false;    // a connect failed at once: nothing can be written, now or later
    int pendingError = 0;        // an error of this system's that came at once and is to be told later
};

SocketState socketState(int descriptor);
void setSocketState(int descriptor, const SocketState& state);

// A descriptor that was closed, or put in another's place.
void forgetDescriptor(int descriptor);

// Held around a fork, so that the child finds the lock free.
std::unique_lock<std::mutex> lockSocketStates();

} // namespace machost::libsystem

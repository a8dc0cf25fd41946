#include "machost/libsystem/SocketState.h"

#include "machost/world/Network.h"

#include <map>
#include <mutex>

namespace machost::libsystem {
namespace {

std::mutex& lock() {
    static auto& one = *new std::mutex;
    return one;
}

std::map<int, SocketState>& states() {
    static auto& one = *new std::map<int, SocketState>;
    return one;
}

} // namespace

SocketState socketState(int descriptor) {
    const std::lock_guard<std::mutex> guard(lock());
    const auto found = states().find(descriptor);
    return found == states().end() ? SocketState() : found->second;
}

void setSocketState(int descriptor, const SocketState& state) {
    const std::lock_guard<std::mutex> guard(lock());
    states()[descriptor] = state;
}

void forgetDescriptor(int descriptor) {
    world::forgetHeldBack(descriptor);
    const std::lock_guard<std::mutex> guard(lock());
    states().erase(descriptor);
}

std::unique_lock<std::mutex> lockSocketStates() { return std::unique_lock(lock()); }

} // namespace machost::libsystem

#include "machost/libsystem/Forks.h"

#include "machost/libsystem/Controls.h"
#include "machost/libsystem/Queues.h"
#include "machost/libsystem/SocketState.h"
#include "machost/objects/Object.h"
#include "machost/world/Network.h"

#include <pthread.h>

#include <mutex>
#include <optional>

namespace machost::libsystem {
namespace {

struct SystemLocks {
    std::unique_lock<std::mutex> queues = lockQueues(); // first, as whoever has it may want the others
    std::unique_lock<std::mutex> heldBack = world::lockHeldBack();
    std::unique_lock<std::mutex> sockets = lockSocketStates();
    std::unique_lock<std::mutex> controls = lockControls();
    std::unique_lock<std::mutex> objects = lockObjects();
};

// Of the thread that forks, while it does.
std::optional<SystemLocks>& held() {
    thread_local std::optional<SystemLocks> locks;
    return locks;
}

void takeLocks() { held().emplace(); }

void freeLocks() { held().reset(); }

void freeLocksInChild() {
    closeQueuesInChild();
    freeLocks();
}

} // namespace

void prepareForks() {
    [[maybe_unused]] static const int registered = pthread_atfork(takeLocks, freeLocks, freeLocksInChild);
}

} // namespace machost::libsystem

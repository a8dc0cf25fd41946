#pragma once

#include <mutex>

// Kernel queues. A queue's descriptor is known to this process alone: it is not handed through exec.

namespace machost::libsystem {

// The descriptor is closed, or put in another's place: as a queue, or as what a queue watches.
void forgetQueue(int descriptor);
void forgetWatches(int descriptor);

// Held around a fork, so that the child finds the lock free.
std::unique_lock<std::mutex> lockQueues();

// In a forked child, with the lock held: it has no queues, and no descriptors of them. The parent's watches stay.
void closeQueuesInChild();

// Looks anew at a descriptor whose held connection was let go.
void rearmWatches(int descriptor);

} // namespace machost::libsystem

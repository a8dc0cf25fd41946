#pragma once

// Kernel queues. A queue's descriptor is known to this process alone: it is not handed through exec.

namespace machost::libsystem {

// The descriptor is closed, or put in another's place: as a queue, or as what a queue watches.
void forgetQueue(int descriptor);
void forgetWatches(int descriptor);

// Looks anew at a descriptor whose held connection was let go.
void rearmWatches(int descriptor);

} // namespace machost::libsystem

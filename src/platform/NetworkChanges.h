#pragma once

// Word of changes in the network's addresses: a store of the system's network state, watched for the IPv4 and
// IPv6 state of every network service, and the run loop that delivers its calls.

#include "platform/Service.h"

namespace platform {

class NetworkChanges {
public:
    // A watch that belongs to the thread which made it.
    struct Watch;

    // Makes a store of that name whose watched keys lead to `changed`, and adds it to the calling thread's run
    // loop. Null, with nothing left behind and the reason in `error`, on failure.
    virtual Watch* create(const char* name, void (*changed)(), int& error) = 0;

    // Runs the calling thread's run loop, which calls `changed`, one call at a time; changes that come
    // meanwhile are delivered afterwards. Blocks, and may return at any time to be called again.
    virtual void run(Watch* watch) = 0;

    // Takes the watch out of the run loop and frees it.
    virtual void release(Watch* watch) = 0;

protected:
    ~NetworkChanges() = default;
};

extern Service<NetworkChanges> networkChangesService;

inline NetworkChanges& networkChanges() { return networkChangesService.get(); }

// The backend of this system, whatever is in force.
NetworkChanges& systemNetworkChanges();

} // namespace platform

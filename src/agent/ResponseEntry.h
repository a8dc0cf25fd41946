#pragma once

// One numbered reply slot of the agent link. With a semaphore the entry is a request whose thread waits;
// without one it is a frame that arrived with nobody waiting. The fields are guarded by the link's response
// lock.

#include "gp/GPObject.h"
#include "platform/Semaphore.h"

#include <cstdint>

class ResponseEntry : public GPObject {
public:
    // Takes over the semaphore and the response; either may be null.
    ResponseEntry(std::uint32_t number, platform::Semaphore* waiter, GPString* text);

    // Releases the semaphore, then the response.
    ~ResponseEntry() override;

    std::uint32_t sequence;         // in host order
    platform::Semaphore* semaphore; // owned, or null
    GPString* response;             // owned; null while the request is unanswered
};

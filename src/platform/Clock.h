#pragma once

// The wall clock and all waiting by time. Code above the boundary reads no clock and sleeps nowhere else, so
// that a test or a replay moves time instead of waiting.

#include "platform/Service.h"

#include <cstdint>
#include <ctime>

namespace platform {

class Clock {
public:
    // Microseconds since the epoch, as gettimeofday counts them. Any thread.
    virtual std::int64_t microseconds() = 0;

    // Seconds since the epoch, as time gives them. Any thread.
    virtual std::time_t seconds() = 0;

    // Blocks the calling thread for that many microseconds.
    virtual void sleepMicroseconds(unsigned microseconds) = 0;

    // Blocks the calling thread for that many seconds.
    virtual void sleepSeconds(unsigned seconds) = 0;

    // Real microseconds for which an event wait with a limit of `seconds` (above 0) may block.
    virtual std::int64_t eventWaitLimit(int seconds) = 0;

protected:
    ~Clock() = default;
};

extern Service<Clock> clockService;

inline Clock& clock() { return clockService.get(); }

} // namespace platform

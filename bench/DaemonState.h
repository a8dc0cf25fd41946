#pragma once

// The program's state in a process of the bench, as the daemon has it when it runs.

#include "platform/Clock.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace bench {

// A new folder in /tmp for the whole run, made by the first call. Whoever made it removes it at the end.
const std::string& scratchFolder();
void removeScratchFolder();

// Puts all fixed paths below a folder of this process's own, and makes localhost the one filter server, with its
// address known. Before any other thread; throws when the address does not come.
void becomeDaemon();

// The real clock, moved by an offset.
class MovedClock final : public platform::Clock {
public:
    // The one of the process, which is in force from the first call on.
    static MovedClock& installed();

    void setOffset(std::int64_t microseconds) { offset_.store(microseconds, std::memory_order_relaxed); }
    void advance(std::int64_t microseconds) { offset_.fetch_add(microseconds, std::memory_order_relaxed); }

    std::int64_t microseconds() override;
    std::time_t seconds() override;
    void sleepMicroseconds(unsigned microseconds) override;
    void sleepSeconds(unsigned seconds) override;
    std::int64_t eventWaitLimit(int seconds) override;

private:
    platform::Clock& real_ = platform::clockService.backend();
    std::atomic<std::int64_t> offset_{0};
};

} // namespace bench

#pragma once

// The clock of a replayed daemon: it stands at the time that the lab plays. The time lies in memory that both
// processes share. A sleep ends when its length has been played, or a tenth of it (or the part that it was made with)
// has passed in real time: the lab itself may be waiting for the sleeper, and then no time is played.

#include "platform/Clock.h"

#include <atomic>
#include <cstdint>

namespace lab {

class PlayedClock final : public platform::Clock {
public:
    // Shared by the processes that are forked afterwards. A sleep takes at most 1 / `haste` of its length.
    explicit PlayedClock(std::int64_t haste = 10);
    ~PlayedClock();

    PlayedClock(const PlayedClock&) = delete;
    PlayedClock& operator=(const PlayedClock&) = delete;

    // The memory that the time lies in, as a 64-bit number, for reading only; it stays the clock's.
    int memory() const { return memory_; }

    // Sets the played time, in microseconds since the epoch.
    void set(std::int64_t microseconds) { *now_ = microseconds; }

    std::int64_t microseconds() override { return *now_; }
    std::time_t seconds() override { return static_cast<std::time_t>(*now_ / 1000000); }
    void sleepMicroseconds(unsigned microseconds) override { sleepFor(microseconds); }
    void sleepSeconds(unsigned seconds) override { sleepFor(std::int64_t{seconds} * 1000000); }
    std::int64_t eventWaitLimit(int seconds) override { return std::int64_t{seconds} * 1000000; }

private:
    void sleepFor(std::int64_t microseconds);

    const int memory_;
    const std::int64_t haste_;
    std::atomic<std::int64_t>* now_;
};

} // namespace lab

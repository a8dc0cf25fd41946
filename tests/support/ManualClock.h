#pragma once

// The tests' clock: time stands still until the test moves it. A thread that sleeps on it blocks until
// enough time has been played, so no test waits for real time.

#include "platform/Clock.h"

#include <condition_variable>
#include <mutex>

namespace testsupport {

class ManualClock final : public platform::Clock {
public:
    // 2026-11-14 05:56:50 UTC.
    static constexpr std::int64_t start = 1794635810LL * 1000000;

    std::int64_t microseconds() override;
    std::time_t seconds() override;
    void sleepMicroseconds(unsigned microseconds) override;
    void sleepSeconds(unsigned seconds) override;

    // An event wait with a limit ends after `eventWait` real microseconds (0 unless set), and the played time
    // moves by the whole limit at its start when `eventWaitMovesTime` was asked for.
    std::int64_t eventWaitLimit(int seconds) override;
    void setEventWait(std::int64_t realMicroseconds, bool movesTime);

    // The next waits, so many of them, end with an event alone.
    void keepWaiting(int waits);

    // Moves time forward (or back) and wakes the sleepers whose time has come.
    void advance(std::int64_t microseconds);
    void advanceSeconds(std::int64_t seconds) { advance(seconds * 1000000); }

    // Sets the time.
    void set(std::int64_t microseconds);

    // From now on a sleep returns at once and moves the time by its length.
    void letSleepsPass(bool pass);

    // Blocks until at least that many threads sleep on this clock; false after the tests' patience.
    bool waitForSleepers(int count);

    // Total of all sleeps that were asked for, in microseconds.
    std::int64_t sleptMicroseconds();

    // The clock that the tests' main installs.
    static ManualClock& installed();

private:
    void sleepFor(std::int64_t microseconds);

    std::mutex mutex_;
    std::condition_variable moved_;
    std::condition_variable fellAsleep_;
    std::int64_t now_ = start;
    std::int64_t sleptTotal_ = 0;
    std::int64_t eventWait_ = 0;
    int sleepers_ = 0;
    int keptWaits_ = 0;
    bool eventWaitMovesTime_ = false;
    bool sleepsPass_ = false;
};

} // namespace testsupport

#pragma once

// Counts the mutexes that the calling thread locks, and comes in between. Counts nothing in a build under a checker,
// which needs the place of the lock functions for itself.

#include <functional>

namespace testsupport {

class LockCounter {
public:
    // Counts from here on. One at a time on a thread.
    LockCounter();
    ~LockCounter();

    LockCounter(const LockCounter&) = delete;
    LockCounter& operator=(const LockCounter&) = delete;

    // Mutexes locked since then.
    long count() const;

    // Those of them that are not unlocked yet, as seen from this thread.
    long held() const;

    // Runs with the mutex held: right behind each lock, or right before each unlock. What it locks is not counted.
    void behindEachLock(std::function<void()> action);
    void beforeEachUnlock(std::function<void()> action);

    struct Seen;

private:
    Seen* seen_;
};

} // namespace testsupport

#pragma once

// Counts the mutexes that the calling thread locks. Counts nothing in a build under a checker, which needs
// the place of the lock function for itself.

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
};

} // namespace testsupport

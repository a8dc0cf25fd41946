#pragma once

// Which locks a thread holds, and operations that are held up at one. A program that uses it is linked with --wrap of
// GPMutex's lock and unlock, so that every one of the code under test comes by.

#include <functional>
#include <thread>
#include <vector>

class GPMutex;

namespace testsupport {

// The locks that the calling thread holds, in the order in which it took them. For what the code under test calls:
// played services, callbacks, overridden operations of its objects.
std::vector<const GPMutex*> heldLocks();

// Whether the calling thread holds this one.
bool holdsLock(const GPMutex* mutex);

// The locks that `operation` takes on this thread, each time in order.
std::vector<const GPMutex*> locksTakenBy(const std::function<void()>& operation);

// The first of them; null if there is none.
const GPMutex* firstLockOf(const std::function<void()>& operation);

// Runs an action each time when the calling thread is about to free a lock. One at a time on a thread.
class BeforeRelease {
public:
    BeforeRelease(const GPMutex* mutex, std::function<void()> action);
    ~BeforeRelease();

    BeforeRelease(const BeforeRelease&) = delete;
    BeforeRelease& operator=(const BeforeRelease&) = delete;

    // How often it has run.
    int count() const;
};

// Counts the threads that wait for a lock, from here on. One at a time.
class WatchedLock {
public:
    explicit WatchedLock(const GPMutex* mutex);
    ~WatchedLock();

    WatchedLock(const WatchedLock&) = delete;
    WatchedLock& operator=(const WatchedLock&) = delete;

    // Blocks until so many threads wait; false after five seconds.
    bool awaitWaiters(int count) const;
};

// An operation that runs on a thread of its own while the test has a lock.
class StoppedAtLock {
public:
    // Takes the lock and returns when the operation waits for it or has ended without. Null takes none.
    StoppedAtLock(const GPMutex* mutex, std::function<void()> operation);

    // Lets go.
    ~StoppedAtLock();

    StoppedAtLock(const StoppedAtLock&) = delete;
    StoppedAtLock& operator=(const StoppedAtLock&) = delete;

    // Whether the operation came to wait for the lock.
    bool waits() const { return waits_; }

    // Frees the lock and returns when the operation has ended.
    void letGo();

private:
    GPMutex* mutex_;
    bool waits_ = false;
    std::thread thread_;
};

} // namespace testsupport

#pragma once

// The locks that the threads of a forked process hold and wait for, and which were taken while others were
// held. The list lies in memory that parent and child share. A program that uses it is linked with
// --wrap of GPMutex's lock and unlock, so that every one of the code under test comes by.

#include <map>
#include <set>
#include <sys/types.h>
#include <utility>

class GPMutex;

namespace testsupport {

class LockList {
public:
    // Made before the fork.
    LockList();

    LockList(const LockList&) = delete;
    LockList& operator=(const LockList&) = delete;

    // In the child: has its locks put on the list from now on.
    void record();

    // The rest is for the parent. A mutex that was there before the fork has the same address on both sides.

    // The locks held now, each with its thread.
    std::map<const GPMutex*, pid_t> held() const;

    // The threads that wait for the lock now.
    std::set<pid_t> waitingFor(const GPMutex* mutex) const;

    // Every lock taken so far.
    std::set<const GPMutex*> taken() const;

    // Each pair of locks that one thread has held together so far, the first to be taken in front.
    using Pair = std::pair<const GPMutex*, const GPMutex*>;
    std::set<Pair> heldTogether() const;

    // False when the list had no room for something.
    bool isComplete() const;

private:
    struct Shared;
    Shared* shared_;
};

} // namespace testsupport

#pragma once

// Counts what the calling thread allocates, by new, malloc or any other way that leads to the C library's
// allocator.

namespace testsupport {

class AllocationCounter {
public:
    // Counts from here on. One at a time on a thread.
    AllocationCounter();
    ~AllocationCounter();

    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // Allocations since then.
    long count() const;

    // Bytes asked for by them, given back or not.
    long bytes() const;

    // Allocations since then less what this thread has given back: what an operation that was tried before leaves
    // behind. In a build under a checker it is always 0, since the checker looks for what is left.
    long left() const;
};

// From now on the calling thread's allocation with that number, from 1, fails, and no other. Not under a checker, whose
// allocator it is.
void failAllocation(long number);

// Whether it has come to that one. None fails from here on.
bool allocationFailed();

} // namespace testsupport

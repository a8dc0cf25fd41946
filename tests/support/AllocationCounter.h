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
};

} // namespace testsupport

#pragma once

// Counts the steps of the calling thread: each block of code that runs in the sources which are built for it, and
// each byte that the C library's functions on memory and text look at or write. The same input takes the same
// steps on every run.

namespace testsupport {

class StepCounter {
public:
    // Counts from here on. One at a time on a thread.
    StepCounter();
    ~StepCounter();

    StepCounter(const StepCounter&) = delete;
    StepCounter& operator=(const StepCounter&) = delete;

    // Steps since then.
    long count() const;
};

} // namespace testsupport

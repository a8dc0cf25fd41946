#pragma once

// The starts of threads in the code under test, for a test to play. A program that uses it is linked with
// --wrap=pthread_create, so that every one comes by.

#include <pthread.h> // IWYU pragma: keep (pthread_t)

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>

namespace testsupport {

// In place of pthread_create, with its arguments and its result.
using ThreadStart = int (*)(pthread_t*, const pthread_attr_t*, void* (*function)(void*), void* argument);

// Has this do the starting from now on; null gives it back to the system. Any thread.
void playThreadStarts(ThreadStart start);

// Threads cannot be had while it is in force, as on a machine that has none left.
struct ThreadRefusal {
    using Function = void* (*)(void*);

    std::atomic<bool> inForce{false};
    std::atomic<std::size_t> refused{0};               // how many starts have met it
    std::array<std::atomic<Function>, 64> functions{}; // of the first of them

    void meet(Function function) {
        const std::size_t number = refused++;
        if (number < functions.size()) functions[number] = function;
    }
    bool hasMet(Function function) const {
        return std::find(functions.begin(), functions.end(), function) != functions.end();
    }
};

// From now on; whoever plays the starts plays those that it lets through. It may lie in memory that processes share.
void refuseThreadsBy(ThreadRefusal& refusal);

// The system's own start.
int startThread(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                void* argument);

// In place of a start: a thread that ends at once.
int startNothing(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                 void* argument);

} // namespace testsupport

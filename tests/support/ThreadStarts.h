#pragma once

// The starts of threads in the code under test, for a test to play. A program that uses it is linked with
// --wrap=pthread_create, so that every one comes by.

#include <atomic>
#include <pthread.h>

namespace testsupport {

// In place of pthread_create, with its arguments and its result.
using ThreadStart = int (*)(pthread_t*, const pthread_attr_t*, void* (*function)(void*), void* argument);

// Has this do the starting from now on; null gives it back to the system. Any thread.
void playThreadStarts(ThreadStart start);

// While this says so, no thread can be had, as on a machine that has none left; whoever plays the starts plays the others.
void refuseThreadsWhile(const std::atomic<bool>& refused);

// The system's own start.
int startThread(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                void* argument);

// In place of a start: a thread that ends at once.
int startNothing(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                 void* argument);

} // namespace testsupport

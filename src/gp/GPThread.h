#pragma once

// A function on a thread of its own, and values that belong to a thread. The object may go while its thread
// runs on. Its thread may be waited for or let go of by any thread, and the running flag read and set by any; one
// thread at a time sets the function and starts it.

#include "gp/GPObject.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <pthread.h> // IWYU pragma: keep (pthread_t)

// The run-loop thread's permission to go on; 1 at start, and nothing in the system clears it.
extern std::atomic<std::uint8_t> threadKeepGoing;

class GPThread : public GPObject {
public:
    GPThread();
    explicit GPThread(void* (*function)(void*));

    // Lets go of the thread: it runs on, detached.
    ~GPThread() override;

    // Sets what the next start runs.
    void setFunction(void* (*function)(void*));

    // Runs the function with `arg` on a new thread; a thread that was started before is detached. Marks the
    // object as running whatever the result. Returns the result of pthread_create, 0 for success.
    int start(void* arg);

    // Blocks until the started thread has ended. Returns at once when none was started or a wait or cleanup
    // has already taken it.
    void wait();

    // Detaches the started thread, if there is one, and forgets it.
    void cleanup();

    // Whether the object was started; it stays so after the thread's end until somebody clears it.
    bool isRunning() const { return running_.load(std::memory_order_relaxed); }
    void setRunning(bool running) { running_.store(running, std::memory_order_relaxed); }

    // Runs function(arg) on a thread that nobody waits for, and returns at once. Any thread.
    static void taskOnBackground(void* (*function)(void*), void* arg);

    // Stores `value` for the calling thread under `key`; a zero key is made anew and stored in `key`, which
    // takes no lock. The value must be a GPObject: it is destroyed with its thread, whatever its count.
    static void addLocalThreadValue(unsigned long& key, void* value);

    // The calling thread's value under `key`, or null.
    static void* getLocalThreadValue(unsigned long key);

    // Does nothing, on purpose: a value lives as long as its thread.
    static void releaseLocalValue(unsigned long key);

    // The destructor of every key: destroys the value, a GPObject, whatever its count. Ignores null.
    static void globalDestructor(void* value);

private:
    // Both with handleGuard_ held. takeThread leaves the handle without its thread, so that each thread is
    // joined or detached once, by one caller.
    pthread_t takeThread();
    void dropHandle();

    std::mutex handleGuard_; // guards handle_ and what it points at
    pthread_t* handle_ = nullptr;
    void* (*function_)(void*) = nullptr;
    std::atomic<bool> running_{false};
};

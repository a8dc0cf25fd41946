#pragma once

// GPAutoReleasePool: deferred release through a stack of pools for each thread. GPObject::autorelease hands
// objects to the calling thread's top pool. A pool belongs to the thread that built it. Only the main thread
// and a forked child have one; on every other thread autorelease does nothing.

#include "gp/GPObject.h"

class GPArray;

// Thread-local key of the pool stacks; zero while there is none. Its creation is not locked.
extern unsigned long PoolKey;

class GPAutoReleasePool : public GPObject {
public:
    // Builds a pool and pushes it on the calling thread's stack, which retains it.
    GPAutoReleasePool();

    // Releases each object twice: for the autorelease and for the pool's own reference.
    ~GPAutoReleasePool() override;

    // Null is ignored. The pool retains what is added.
    void addObject(GPObject* object);
    void removeObject(GPObject* object);

    // Destroys the pool whatever its reference count. The static form ignores a null pool.
    void drain();
    static void drain(GPAutoReleasePool* pool);

    // The calling thread's top pool, borrowed, or null.
    static GPAutoReleasePool* topPool();

private:
    GPArray* objects_;
    unsigned long key_;
};

#pragma once

// What tests of counted objects need: a look at a reference count, objects that tell of their end, and a pool
// for the length of a scope.

#include "gp/GPAutoReleasePool.h"
#include "gp/GPObject.h"

namespace testsupport {

// The reference count as it stands, markers included. The object must not be shared with other threads.
inline int references(GPObject* object) {
    const int count = object->retainonly() - 1;
    object->releaseonly();
    return count;
}

// Counts its destructions in a variable of the test.
class TrackedObject : public GPObject {
public:
    explicit TrackedObject(int& destroyed) : destroyed_(destroyed) {}
    ~TrackedObject() override { ++destroyed_; }

private:
    int& destroyed_;
};

// A pool on the calling thread, drained at the end of the scope.
class PoolScope {
public:
    PoolScope() : pool_(new GPAutoReleasePool()) {}
    ~PoolScope() { pool_->drain(); }

    PoolScope(const PoolScope&) = delete;
    PoolScope& operator=(const PoolScope&) = delete;

    GPAutoReleasePool* get() const { return pool_; }

private:
    GPAutoReleasePool* pool_;
};

} // namespace testsupport

#include "gp/GPAutoReleasePool.h"

#include "gp/GPArray.h"
#include "gp/GPThread.h"

#include <cstdio>

unsigned long PoolKey = 0;

namespace {

constexpr int initialCapacity = 5;

// The calling thread's stack of pools, or null. It outlives an empty state.
GPArray* poolStack() {
    return PoolKey ? static_cast<GPArray*>(GPThread::getLocalThreadValue(PoolKey)) : nullptr;
}

} // namespace

GPAutoReleasePool::GPAutoReleasePool() : objects_(new GPArray(initialCapacity)), key_(PoolKey) {
    if (GPArray* stack = poolStack()) {
        stack->addObject(this);
        return;
    }
    GPArray* stack = new GPArray();
    stack->addObject(this);
    GPThread::addLocalThreadValue(PoolKey, stack);
    key_ = PoolKey;
}

GPAutoReleasePool::~GPAutoReleasePool() {
    // The stack releases what it is asked to remove: that must not destroy the pool a second time.
    retainonly();

    // The count is read on every step: a destructor that runs here may autorelease an object.
    for (int index = 0; index < objects_->count(); ++index) {
        GPObject* object = objects_->objectAtIndex(index);
        if (object->release() != destroyedMark) continue;
        // A further release would touch freed memory, so none of its entries stays.
        for (int found = objects_->removeValue(object); found >= 0; found = objects_->removeValue(object)) {
            if (found <= index) --index;
        }
    }
    objects_->release();
    objects_ = nullptr;

    GPArray* stack = poolStack();
    if (stack) stack->removeObject(this);
    if (!stack || key_ != PoolKey) {
        std::printf(
            "!!!WARNING: Internal Error: autorelease-pool integrity error. (pool=%ld currentpool=%ld)\n",
            static_cast<long>(key_), static_cast<long>(PoolKey));
    }
}

void GPAutoReleasePool::addObject(GPObject* object) {
    if (object) objects_->addObject(object);
}

void GPAutoReleasePool::removeObject(GPObject* object) {
    if (object) objects_->removeObject(object);
}

void GPAutoReleasePool::drain() { delete this; }

void GPAutoReleasePool::drain(GPAutoReleasePool* pool) { delete pool; }

GPAutoReleasePool* GPAutoReleasePool::topPool() {
    GPArray* stack = poolStack();
    return stack ? static_cast<GPAutoReleasePool*>(stack->objectAtIndex(stack->count() - 1)) : nullptr;
}

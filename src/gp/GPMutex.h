#pragma once

// The lock used everywhere. Not recursive: a thread that locks a GPMutex it holds blocks for ever.

#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

class CAPABILITY("mutex") GPMutex : public GPObject {
public:
    GPMutex();
    ~GPMutex() override;

    // Blocks until the lock is free.
    void lock() ACQUIRE();

    // Frees the lock. Only the thread that holds it may call this.
    void unlock() RELEASE();

    // Whether some thread holds the lock; a hint that can be outdated when it is read.
    bool isLocked() const;

private:
    struct Record;
    Record* record_;
};

// Holds a GPMutex for the length of a scope. A null mutex is allowed and locks nothing.
class SCOPED_CAPABILITY GPMutexLock {
public:
    explicit GPMutexLock(GPMutex* mutex) ACQUIRE(mutex) : mutex_(mutex) {
        if (mutex_) mutex_->lock();
    }
    ~GPMutexLock() RELEASE() { unlock(); }

    GPMutexLock(const GPMutexLock&) = delete;
    GPMutexLock& operator=(const GPMutexLock&) = delete;

    // Frees the lock ahead of the scope's end; a second call does nothing.
    void unlock() RELEASE() {
        if (mutex_) mutex_->unlock();
        mutex_ = nullptr;
    }

private:
    GPMutex* mutex_;
};

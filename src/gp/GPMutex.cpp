#include "gp/GPMutex.h"

#include <atomic>
#include <pthread.h>

struct GPMutex::Record {
    pthread_mutex_t mutex;
    pthread_mutexattr_t attributes;
    std::atomic<bool> locked{false};
};

GPMutex::GPMutex() : record_(new Record) {
    pthread_mutexattr_init(&record_->attributes);
    pthread_mutexattr_settype(&record_->attributes, PTHREAD_MUTEX_NORMAL);
    pthread_mutex_init(&record_->mutex, &record_->attributes);
}

GPMutex::~GPMutex() {
    pthread_mutex_destroy(&record_->mutex);
    pthread_mutexattr_destroy(&record_->attributes);
    delete record_;
}

void GPMutex::lock() {
    pthread_mutex_lock(&record_->mutex);
    record_->locked.store(true, std::memory_order_relaxed);
}

void GPMutex::unlock() {
    // The flag goes first: once the mutex is free, another thread may destroy it.
    record_->locked.store(false, std::memory_order_relaxed);
    pthread_mutex_unlock(&record_->mutex);
}

bool GPMutex::isLocked() const { return record_->locked.load(std::memory_order_relaxed); }

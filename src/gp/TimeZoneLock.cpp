#include "gp/TimeZoneLock.h"

#include <pthread.h>

namespace {

// Ready before any code runs, and never destroyed: dates are made before main and lines logged at the exit.
pthread_mutex_t timeZoneMutex = PTHREAD_MUTEX_INITIALIZER;

void lock() { pthread_mutex_lock(&timeZoneMutex); }
void unlock() { pthread_mutex_unlock(&timeZoneMutex); }

// A child frees the lock and makes it anew. Where a lock goes to its waiters in turn, as on the Mac, it would otherwise
// be handed to the first that waited at the fork, a thread that the child does not have.
void renew() {
    unlock();
    pthread_mutex_init(&timeZoneMutex, nullptr);
}

// A fork takes the lock.
[[maybe_unused]] const int taken = pthread_atfork(lock, unlock, renew);

} // namespace

TimeZoneLock::TimeZoneLock() { lock(); }

TimeZoneLock::~TimeZoneLock() { unlock(); }

#include "gp/TimeZoneLock.h"

#include <pthread.h>

namespace {

// Ready before any code runs, and never destroyed: dates are made before main and lines logged at the exit.
pthread_mutex_t timeZoneMutex = PTHREAD_MUTEX_INITIALIZER;

void lock() { pthread_mutex_lock(&timeZoneMutex); }
void unlock() { pthread_mutex_unlock(&timeZoneMutex); }

// A fork takes the lock and frees it on both sides.
[[maybe_unused]] const int taken = pthread_atfork(lock, unlock, unlock);

} // namespace

TimeZoneLock::TimeZoneLock() { lock(); }

TimeZoneLock::~TimeZoneLock() { unlock(); }

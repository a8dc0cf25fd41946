#include "support/LockCounter.h"

#include "support/Sanitizers.h"

#include <dlfcn.h>
#include <pthread.h>

namespace {

thread_local bool counting = false;
thread_local long lockings = 0;

} // namespace

#ifndef OSTLER_SANITIZED

// Stands in front of the C library's own for the whole program.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    using Lock = int (*)(pthread_mutex_t*);
    static const auto libraryLock = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    if (counting) ++lockings;
    return libraryLock(mutex);
}

#endif

namespace testsupport {

LockCounter::LockCounter() {
    lockings = 0;
    counting = true;
}

LockCounter::~LockCounter() { counting = false; }

long LockCounter::count() const { return lockings; }

} // namespace testsupport

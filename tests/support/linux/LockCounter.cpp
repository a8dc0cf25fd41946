#include "support/LockCounter.h"

#include <dlfcn.h>
#include <pthread.h>

#include <utility>

struct testsupport::LockCounter::Seen {
    long lockings = 0;
    long held = 0;
    std::function<void()> behindLock;
    std::function<void()> beforeUnlock;
};

namespace {

thread_local testsupport::LockCounter::Seen* seen = nullptr;

} // namespace

#ifndef OSTLER_SANITIZED

namespace {

using MutexFunction = int (*)(pthread_mutex_t*);

MutexFunction ofTheLibrary(const char* name) {
    return reinterpret_cast<MutexFunction>(dlsym(RTLD_NEXT, name));
}

// Counts nothing meanwhile.
void run(const std::function<void()>& action) {
    if (!action) return;
    auto* const noting = std::exchange(seen, nullptr);
    action();
    seen = noting;
}

} // namespace

// These stand in front of the C library's own for the whole program.
extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    static const MutexFunction real = ofTheLibrary("pthread_mutex_lock");
    const int result = real(mutex);
    if (seen) {
        ++seen->lockings;
        ++seen->held;
        run(seen->behindLock);
    }
    return result;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static const MutexFunction real = ofTheLibrary("pthread_mutex_unlock");
    if (seen) {
        run(seen->beforeUnlock);
        --seen->held;
    }
    return real(mutex);
}

} // extern "C"

#endif

namespace testsupport {

LockCounter::LockCounter() : seen_(new Seen) { seen = seen_; }

LockCounter::~LockCounter() {
    seen = nullptr;
    delete seen_;
}

long LockCounter::count() const { return seen_->lockings; }

long LockCounter::held() const { return seen_->held; }

void LockCounter::behindEachLock(std::function<void()> action) { seen_->behindLock = std::move(action); }

void LockCounter::beforeEachUnlock(std::function<void()> action) { seen_->beforeUnlock = std::move(action); }

} // namespace testsupport

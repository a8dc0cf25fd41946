#include "support/HeldLocks.h"

#include "gp/GPMutex.h"
#include "support/Await.h"
#include "support/LockCalls.h"

#include <algorithm>
#include <atomic>
#include <future>

namespace testsupport {
namespace {

// Plain arrays, which are there for a thread from its first moment to its last.
thread_local const GPMutex* held[16];
thread_local int heldCount = 0;
thread_local std::vector<const GPMutex*>* taken = nullptr;

// The action in front of a release.
struct Release {
    const GPMutex* mutex;
    std::function<void()> action;
    int count;
};
thread_local Release* release = nullptr;

// What the thread of a StoppedAtLock tells, once.
thread_local const GPMutex* awaited = nullptr;
thread_local std::promise<bool>* arrival = nullptr;

std::atomic<const GPMutex*> watched{nullptr};
std::atomic<int> waiters{0};

void arrive(bool atLock) {
    if (!arrival) return;
    arrival->set_value(atLock);
    arrival = nullptr;
}

} // namespace

void noteLockWanted(const GPMutex* mutex) {
    if (mutex == awaited) arrive(true);
    if (mutex == watched) ++waiters;
}

void noteLockTaken(const GPMutex* mutex) {
    if (heldCount < 16) held[heldCount] = mutex;
    ++heldCount;
    if (mutex == watched) --waiters;
    if (taken) taken->push_back(mutex);
}

void noteLockFreed(const GPMutex* mutex) {
    if (release && release->mutex == mutex) {
        ++release->count;
        release->action();
    }
    const GPMutex** end = held + std::min(heldCount, 16);
    const GPMutex** found = std::find(held, end, mutex);
    if (found == end) return;
    std::copy(found + 1, end, found);
    --heldCount;
}

std::vector<const GPMutex*> heldLocks() { return {held, held + std::min(heldCount, 16)}; }

bool holdsLock(const GPMutex* mutex) {
    return std::find(held, held + std::min(heldCount, 16), mutex) != held + std::min(heldCount, 16);
}

std::vector<const GPMutex*> locksTakenBy(const std::function<void()>& operation) {
    std::vector<const GPMutex*> result;
    taken = &result;
    operation();
    taken = nullptr;
    return result;
}

const GPMutex* firstLockOf(const std::function<void()>& operation) {
    const auto locks = locksTakenBy(operation);
    return locks.empty() ? nullptr : locks.front();
}

BeforeRelease::BeforeRelease(const GPMutex* mutex, std::function<void()> action) {
    release = new Release{mutex, std::move(action), 0};
}

BeforeRelease::~BeforeRelease() {
    delete release;
    release = nullptr;
}

int BeforeRelease::count() const { return release->count; }

WatchedLock::WatchedLock(const GPMutex* mutex) {
    waiters = 0;
    watched = mutex;
}

WatchedLock::~WatchedLock() { watched = nullptr; }

bool WatchedLock::awaitWaiters(int count) const {
    return comesTrue([count] { return waiters == count; });
}

StoppedAtLock::StoppedAtLock(const GPMutex* mutex, std::function<void()> operation)
    : mutex_(const_cast<GPMutex*>(mutex)) {
    if (mutex_) mutex_->lock();
    std::promise<bool> told;
    thread_ = std::thread([this, &told, run = std::move(operation)] {
        awaited = mutex_;
        arrival = &told;
        run();
        arrive(false);
    });
    waits_ = told.get_future().get();
}

StoppedAtLock::~StoppedAtLock() { letGo(); }

void StoppedAtLock::letGo() {
    if (!thread_.joinable()) return;
    if (mutex_) mutex_->unlock();
    thread_.join();
}

} // namespace testsupport

#pragma once

// Bounds how many operations run at once and queues the rest, first in, first out. A slot is no standing
// worker: each operation gets a new thread on the slot that was found free, and begins when the slot is marked as
// busy. Operations may be added by any thread.

#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

class GPArray;
class GPList;
class GPMutex;
class GPThread;
class GPThreadPool;

// One queued operation with all that a worker needs. It lives from addOperation to the end of its worker.
class GPThreadOpt : public GPObject {
public:
    void (*function)(void*) = nullptr;
    void* argument = nullptr;
    GPArray* threads = nullptr;
    GPList* queue PT_GUARDED_BY(mutex) = nullptr;
    GPMutex* mutex = nullptr;
    GPThread* assignedThread = nullptr; // null until a slot is chosen
    int maximumCount = 0;               // of the pool, at the time of addOperation
    GPThreadPool* pool = nullptr;
};

class GPThreadPool : public GPObject {
public:
    // A pool of 10 slots.
    GPThreadPool();

    // A pool of `n` slots; below 1, none, and no operation ever runs.
    explicit GPThreadPool(int n);

    // Waits for all operations, as waitForAll does, and until the last worker has left the pool.
    ~GPThreadPool() override;

    // Queues fn(arg) and starts it when a slot is free. During waitForAll it may run here, on the calling
    // thread with the pool's lock held; such an operation must not add to the same pool.
    void addOperation(void (*fn)(void*), void* arg);

    // Changes how many slots are used for later operations; valid up to the number of slots built.
    void setMaxOperationCount(int count);
    int maxOperationCount() const;

    // Whether some thread is in waitForAll.
    bool isWaiting() const { return waiting_.load(std::memory_order_relaxed); }

    // The number of busy slots before the first idle one, and the pool's lock stays held: every later use
    // blocks. With no idle slot 0, and the lock is free.
    int workingCount();

    // Waits for each running slot in turn.
    void waitForAll();

private:
    static void processWork(GPList* queue, GPArray* threads, int count, GPMutex* mutex) EXCLUDES(mutex);
    static GPThread* getFreeThread(GPArray* threads, int count);
    static void* workThread(void* operation);

    void workerEnters();
    void workerLeaves();
    void waitForWorkersToLeave();
    void waitForMark(const GPThread& slot);
    void tellOfMark();

    std::atomic<int> maxOperationCount_;
    GPList* queue_ PT_GUARDED_BY(mutex_);
    GPArray* threads_; // the choice of a slot is guarded by mutex_
    GPMutex* mutex_;
    std::atomic<bool> waiting_{false};

    std::mutex workersGuard_;
    std::condition_variable workersLeft_;
    std::condition_variable slotMarked_; // a slot has come to be marked as running
    int workers_ = 0;                    // started threads that still use the pool; guarded by workersGuard_
};

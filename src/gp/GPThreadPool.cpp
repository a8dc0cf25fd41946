#include "gp/GPThreadPool.h"

#include "gp/GPArray.h"
#include "gp/GPList.h"
#include "gp/GPMutex.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"

GPThreadPool::GPThreadPool() : GPThreadPool(10) {}

GPThreadPool::GPThreadPool(int n)
    : maxOperationCount_(n), queue_(new GPList), threads_(new GPArray(n)), mutex_(new GPMutex) {
    for (int i = 0; i < n; ++i)
        threads_->addObject(Owned<GPThread>::adopt(new GPThread).get());
}

GPThreadPool::~GPThreadPool() {
    waitForAll();
    waitForWorkersToLeave();
    queue_->release();
    threads_->release();
    mutex_->release();
}

void GPThreadPool::addOperation(void (*fn)(void*), void* arg) {
    auto* operation = new GPThreadOpt;
    operation->function = fn;
    operation->argument = arg;
    operation->threads = threads_;
    operation->queue = queue_;
    operation->mutex = mutex_;
    operation->maximumCount = maxOperationCount();
    operation->pool = this;
    {
        GPMutexLock lock(mutex_);
        queue_->push(operation);
    }
    // The queue's reference goes with the pop, this one with the end of the work.
    processWork(queue_, threads_, maxOperationCount(), mutex_);
}

void GPThreadPool::processWork(GPList* queue, GPArray* threads, int count, GPMutex* mutex) {
    GPMutexLock lock(mutex);
    while (GPThread* slot = getFreeThread(threads, count)) {
        auto* operation = static_cast<GPThreadOpt*>(queue->pop());
        while (operation && operation->pool->isWaiting()) {
            // While the slots are being joined, whoever comes by works the queue off, with the lock held: such an
            // operation must not add another.
            operation->function(operation->argument);
            operation->release();
            operation = static_cast<GPThreadOpt*>(queue->pop());
        }
        if (!operation) return;
        operation->assignedThread = slot;
        slot->setFunction(workThread);
        GPThreadPool* pool = operation->pool;
        pool->workerEnters();
        // A slot whose thread could not be made counts as busy from now on.
        if (slot->start(operation) != 0) pool->workerLeaves();
        pool->tellOfMark();
    }
}

GPThread* GPThreadPool::getFreeThread(GPArray* threads, int count) {
    for (int i = 0; i < count && i < threads->count(); ++i) {
        auto* slot = static_cast<GPThread*>(threads->valueAtIndex(i));
        if (!slot->isRunning()) return slot;
    }
    return nullptr;
}

void* GPThreadPool::workThread(void* argument) {
    auto* operation = static_cast<GPThreadOpt*>(argument);
    GPThreadPool* pool = operation->pool;
    pool->waitForMark(*operation->assignedThread);
    operation->function(operation->argument);
    operation->assignedThread->setRunning(false);
    processWork(operation->queue, operation->threads, operation->maximumCount, operation->mutex);
    operation->release();
    pool->workerLeaves();
    return nullptr;
}

void GPThreadPool::setMaxOperationCount(int count) {
    maxOperationCount_.store(count, std::memory_order_relaxed);
}

int GPThreadPool::maxOperationCount() const { return maxOperationCount_.load(std::memory_order_relaxed); }

// Keeps the lock when there is an idle slot, which no check allows.
int GPThreadPool::workingCount() NO_THREAD_SAFETY_ANALYSIS {
    mutex_->lock();
    for (int i = 0; i < threads_->count(); ++i) {
        // Leaves the lock held, which blocks the pool. Nothing calls it.
        if (!static_cast<GPThread*>(threads_->valueAtIndex(i))->isRunning()) return i;
    }
    mutex_->unlock();
    return 0;
}

void GPThreadPool::waitForAll() {
    waiting_.store(true, std::memory_order_relaxed);
    for (int i = 0; i < threads_->count(); ++i) {
        auto* slot = static_cast<GPThread*>(threads_->valueAtIndex(i));
        if (slot->isRunning()) slot->wait();
    }
    waiting_.store(false, std::memory_order_relaxed);
}

void GPThreadPool::workerEnters() {
    std::lock_guard<std::mutex> lock(workersGuard_);
    ++workers_;
}

void GPThreadPool::workerLeaves() {
    std::lock_guard<std::mutex> lock(workersGuard_);
    if (--workers_ == 0) workersLeft_.notify_all();
}

// The starter marks the slot only when the thread has been made. A worker that cleared the mark before would lose
// the slot for good. The pool's own lock cannot be waited for: it may be held across an operation.
void GPThreadPool::waitForMark(const GPThread& slot) {
    std::unique_lock<std::mutex> lock(workersGuard_);
    slotMarked_.wait(lock, [&slot] { return slot.isRunning(); });
}

void GPThreadPool::tellOfMark() {
    // A worker that has looked at its slot is either waiting by now or looks again.
    { std::lock_guard<std::mutex> lock(workersGuard_); }
    slotMarked_.notify_all();
}

// A worker marks its slot idle before it looks at the queue again, so joining the busy slots does not tell
// that no worker touches the pool any more.
void GPThreadPool::waitForWorkersToLeave() {
    std::unique_lock<std::mutex> lock(workersGuard_);
    workersLeft_.wait(lock, [this] { return workers_ == 0; });
}

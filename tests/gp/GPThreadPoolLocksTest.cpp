// The lock of a pool around the operations that are run under it, and the copies that a worker goes by.

#include "gp/GPThreadPool.h"

#include "support/AllocationCounter.h"
#include "support/Await.h"
#include "support/LockCounter.h"
#include "support/Sanitizers.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

using testsupport::comesTrue;

void waitUntil(void* flag) {
    while (!*static_cast<std::atomic<bool>*>(flag))
        std::this_thread::yield();
}

void countUp(void* count) { ++*static_cast<std::atomic<int>*>(count); }

// A pool whose first slots run operations that the test ends, and that somebody waits for.
class BusyPool {
public:
    BusyPool(int slots, int busy) : pool(slots), mayEnd_(static_cast<std::size_t>(busy)) {
        for (auto& may : mayEnd_)
            pool.addOperation(waitUntil, &may);
        waiter_ = std::thread([this] { pool.waitForAll(); });
        while (!pool.isWaiting())
            std::this_thread::yield();
    }

    ~BusyPool() {
        for (auto& may : mayEnd_)
            may = true;
        waiter_.join();
    }

    GPThreadPool pool;

private:
    std::vector<std::atomic<bool>> mayEnd_;
    std::thread waiter_;
};

testsupport::LockCounter* locksOfAdder = nullptr;
std::vector<long> heldInside;
const testsupport::AllocationCounter* allocationsOfAdder = nullptr;

void noteHeld(void*) { heldInside.push_back(locksOfAdder->held()); }

TEST(GPThreadPoolLocks, WhileAllAreWaitedForAnOperationRunsWithThePoolsLockHeld) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock functions";
    BusyPool busy(2, 1);
    testsupport::LockCounter locks;
    locksOfAdder = &locks;

    busy.pool.addOperation(noteHeld, nullptr);
    busy.pool.addOperation(noteHeld, nullptr);

    EXPECT_EQ(heldInside, (std::vector<long>{1, 1}));
    EXPECT_EQ(locks.held(), 0);
}

void noteLeft(void* left) { *static_cast<long*>(left) = allocationsOfAdder->left(); }

TEST(GPThreadPoolLocks, WhileAllAreWaitedForAnOperationIsGivenBackBehindItsRun) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers have an allocator of their own";
    BusyPool busy(2, 1);
    long inside = 0;
    const testsupport::AllocationCounter allocations;
    allocationsOfAdder = &allocations;

    busy.pool.addOperation(noteLeft, &inside);

    EXPECT_GT(inside, allocations.left());
}

TEST(GPThreadPoolLocks, WhileAllAreWaitedForTheWholeQueueIsWorkedOffAndNoThreadMade) {
    std::atomic<bool> mayEnd{false};
    std::atomic<int> done{0};
    GPThreadPool pool(1);
    pool.addOperation(waitUntil, &mayEnd);
    for (int i = 0; i < 3; ++i)
        pool.addOperation(countUp, &done); // no slot is free
    EXPECT_EQ(done, 0);
    std::thread waiter([&] { pool.waitForAll(); });
    while (!pool.isWaiting())
        std::this_thread::yield();
    mayEnd = true;
    waiter.join();

    EXPECT_EQ(done, 3) << "by the worker that ended, on its own thread, before it was joined";
}

TEST(GPThreadPoolLocks, AFinishingWorkerGoesByTheMaximumOfItsOwnOperation) {
    GPThreadPool pool(2);
    std::atomic<bool> firstMayEnd{false};
    std::atomic<bool> secondMayEnd{false};
    std::atomic<int> done{0};
    pool.addOperation(waitUntil, &firstMayEnd);
    pool.addOperation(waitUntil, &secondMayEnd);
    pool.setMaxOperationCount(1);
    pool.addOperation(countUp, &done);
    EXPECT_EQ(done, 0);

    // The second slot comes free: its worker was told of two.
    secondMayEnd = true;
    EXPECT_TRUE(comesTrue([&] { return done == 1; }));
    firstMayEnd = true;
}

// A worker's function with its argument.
struct Worker {
    void* (*function)(void*);
    void* argument;
};
std::atomic<int> started{0};
std::atomic<int> ended{0};

int startAndCount(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                  void* argument) {
    ++started;
    const auto runCounted = [](void* worker) -> void* {
        const std::unique_ptr<Worker> own(static_cast<Worker*>(worker));
        void* const result = own->function(own->argument);
        ++ended;
        return result;
    };
    return testsupport::startThread(thread, attributes, runCounted, new Worker{function, argument});
}

TEST(GPThreadPoolLocks, AWorkerThatWasToldOfFewerLeavesTheUpperSlotsIdle) {
    GPThreadPool pool(2);
    std::atomic<bool> firstMayEnd{false};
    std::atomic<bool> secondMayEnd{false};
    std::atomic<int> done{0};
    testsupport::playThreadStarts(startAndCount);
    pool.setMaxOperationCount(1);
    pool.addOperation(waitUntil, &firstMayEnd);
    pool.addOperation(waitUntil, &secondMayEnd);
    pool.addOperation(countUp, &done);
    pool.setMaxOperationCount(2);

    firstMayEnd = true;
    EXPECT_TRUE(comesTrue([] { return ended == 1; }));
    EXPECT_EQ(started, 2) << "the first slot alone goes on";
    EXPECT_EQ(done, 0);
    secondMayEnd = true;
    EXPECT_TRUE(comesTrue([] { return ended == 3; }));
    EXPECT_EQ(done, 1);
    testsupport::playThreadStarts(nullptr);
}

} // namespace

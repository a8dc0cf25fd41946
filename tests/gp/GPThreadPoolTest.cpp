#include "gp/GPThreadPool.h"

#include "platform/ThreadNumber.h"
#include "support/ForkedChild.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <future>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

// An operation that the test watches: it says on which thread it began, and goes on when it may. What the
// thread touches lives as long as the process, since the thread can outlive the test's own view of it.
class Operation {
public:
    // Lets it end as soon as it has begun.
    Operation& unhindered() {
        letEnd();
        return *this;
    }
    void letEnd() { state_.may.set_value(); }

    std::uint64_t threadWhenBegun() { return beginning_.get(); }
    bool hasBegun() const {
        return beginning_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    void waitForTheEnd() { ending_.wait(); }

private:
    friend void add(GPThreadPool& pool, Operation& operation);

    struct State {
        std::promise<std::uint64_t> begun;
        std::promise<void> may;
        std::promise<void> ended;
    };

    static void runState(void* argument) {
        auto& state = *static_cast<State*>(argument);
        state.begun.set_value(platform::threadNumber());
        state.may.get_future().wait();
        state.ended.set_value();
    }

    static State& lastingState() {
        static auto* states = new std::deque<State>;
        return states->emplace_back();
    }

    State& state_ = lastingState();
    std::shared_future<std::uint64_t> beginning_ = state_.begun.get_future().share();
    std::future<void> ending_ = state_.ended.get_future();
};

void add(GPThreadPool& pool, Operation& operation) {
    pool.addOperation(Operation::runState, &operation.state_);
}

void countUp(void* argument) { ++*static_cast<std::atomic<int>*>(argument); }

// A pool that lives as long as the process, since what is left in its queue is never released.
GPThreadPool& lastingPool(int slots) {
    static auto* pools = new std::vector<GPThreadPool*>;
    pools->push_back(new GPThreadPool(slots));
    return *pools->back();
}

TEST(GPThreadPool, APoolHasTenSlotsUnlessToldOtherwise) {
    GPThreadPool pool;
    EXPECT_EQ(pool.maxOperationCount(), 10);
    std::vector<Operation> operations(11);
    for (Operation& operation : operations)
        add(pool, operation);
    for (int i = 0; i < 10; ++i)
        operations[i].threadWhenBegun();
    EXPECT_FALSE(operations[10].hasBegun());
    for (Operation& operation : operations)
        operation.letEnd();
    operations[10].waitForTheEnd();
}

TEST(GPThreadPool, AnOperationGetsItsArgumentOnAThreadOfItsOwn) {
    GPThreadPool pool(1);
    Operation operation;
    add(pool, operation.unhindered());
    EXPECT_NE(operation.threadWhenBegun(), platform::threadNumber());
    operation.waitForTheEnd();
}

TEST(GPThreadPool, APoolOfNoSlotsTakesOperationsAndNeverRunsThem) {
    GPThreadPool& pool = lastingPool(0);
    Operation operation;
    add(pool, operation.unhindered());
    pool.waitForAll();
    EXPECT_FALSE(operation.hasBegun());
    EXPECT_EQ(pool.workingCount(), 0);
}

TEST(GPThreadPool, ANegativeNumberOfSlotsIsNone) {
    GPThreadPool& pool = lastingPool(-3);
    Operation operation;
    add(pool, operation.unhindered());
    pool.waitForAll();
    EXPECT_FALSE(operation.hasBegun());
}

TEST(GPThreadPool, TheThirdOfThreeOnTwoSlotsStartsWhenOneEndsOnAThreadOfTheFinishingWorkers) {
    GPThreadPool pool(2);
    Operation first;
    Operation second;
    Operation third;
    add(pool, first);
    add(pool, second);
    add(pool, third);
    const std::uint64_t firstThread = first.threadWhenBegun();
    const std::uint64_t secondThread = second.threadWhenBegun();
    EXPECT_FALSE(third.hasBegun());

    first.letEnd();
    const std::uint64_t thirdThread = third.threadWhenBegun();
    EXPECT_NE(thirdThread, firstThread);
    EXPECT_NE(thirdThread, secondThread);
    EXPECT_NE(thirdThread, platform::threadNumber());
    second.letEnd();
    third.letEnd();
    third.waitForTheEnd();
}

TEST(GPThreadPool, QueuedOperationsRunFirstInFirstOut) {
    GPThreadPool pool(1);
    std::vector<Operation> operations(3);
    for (Operation& operation : operations)
        add(pool, operation);
    for (int i = 0; i < 3; ++i) {
        operations[i].threadWhenBegun();
        for (int later = i + 1; later < 3; ++later)
            EXPECT_FALSE(operations[later].hasBegun());
        operations[i].letEnd();
    }
    operations[2].waitForTheEnd();
}

TEST(GPThreadPool, AnOperationAddedDuringWaitForAllRunsOnTheThreadThatAddedItIfASlotIsFree) {
    GPThreadPool pool(2);
    Operation busy;
    add(pool, busy);
    busy.threadWhenBegun();
    std::thread waiter([&] { pool.waitForAll(); });
    while (!pool.isWaiting())
        std::this_thread::yield();

    Operation added;
    add(pool, added.unhindered());
    EXPECT_TRUE(added.hasBegun()) << "it runs inside addOperation";
    EXPECT_EQ(added.threadWhenBegun(), platform::threadNumber());
    busy.letEnd();
    waiter.join();
    EXPECT_FALSE(pool.isWaiting());
}

TEST(GPThreadPool, AnOperationAddedDuringWaitForAllStaysQueuedIfNoSlotIsFree) {
    GPThreadPool pool(2);
    Operation waitedFor;
    Operation busy;
    add(pool, waitedFor);
    add(pool, busy);
    const std::uint64_t busyThread = busy.threadWhenBegun();
    std::thread waiter([&] { pool.waitForAll(); });
    while (!pool.isWaiting())
        std::this_thread::yield();

    Operation added;
    add(pool, added.unhindered());
    EXPECT_FALSE(added.hasBegun());
    busy.letEnd();
    EXPECT_EQ(added.threadWhenBegun(), busyThread) << "the worker that came by drained the queue";
    waitedFor.letEnd();
    waiter.join();
}

TEST(GPThreadPool, WaitForAllReturnsOnlyWhenTheRunningOperationsHaveEnded) {
    GPThreadPool pool(2);
    Operation first;
    Operation second;
    add(pool, first);
    add(pool, second);
    auto waiter = std::async(std::launch::async, [&] { pool.waitForAll(); });
    first.letEnd();
    first.waitForTheEnd();
    EXPECT_EQ(waiter.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    second.letEnd();
    waiter.wait();
    second.waitForTheEnd();
}

TEST(GPThreadPool, WorkingCountWithAllSlotsIdleIsZeroAndLeavesTheMutexLocked) {
    EXPECT_EQ(testsupport::answerOfChild([] { return std::to_string(lastingPool(2).workingCount()); }), "0");
    EXPECT_TRUE(testsupport::neverEnds([] {
        GPThreadPool& pool = lastingPool(2);
        pool.workingCount();
        pool.addOperation(countUp, nullptr);
    }));
}

TEST(GPThreadPool, WorkingCountWithAllSlotsBusyIsZeroAndLeavesTheMutexFree) {
    GPThreadPool pool(2);
    Operation first;
    Operation second;
    Operation third;
    add(pool, first);
    add(pool, second);
    EXPECT_EQ(pool.workingCount(), 0);
    add(pool, third);
    first.letEnd();
    second.letEnd();
    third.letEnd();
    third.waitForTheEnd();
}

TEST(GPThreadPool, WorkingCountWithALaterSlotIdleIsTheNumberOfBusyOnesBefore) {
    EXPECT_EQ(testsupport::answerOfChild([] {
                  GPThreadPool& pool = lastingPool(3);
                  static Operation first;
                  static Operation second;
                  add(pool, first);
                  add(pool, second);
                  return std::to_string(pool.workingCount());
              }),
              "2");
}

TEST(GPThreadPool, AMaximumBelowTheSlotCountLeavesTheUpperSlotsIdle) {
    GPThreadPool pool(3);
    pool.setMaxOperationCount(1);
    EXPECT_EQ(pool.maxOperationCount(), 1);
    Operation first;
    Operation second;
    add(pool, first);
    add(pool, second);
    first.threadWhenBegun();
    EXPECT_FALSE(second.hasBegun());
    first.letEnd();
    second.threadWhenBegun();
    second.letEnd();
    second.waitForTheEnd();
}

TEST(GPThreadPool, AMaximumAboveTheSlotCountAddsNoSlot) {
    GPThreadPool pool(1);
    pool.setMaxOperationCount(5);
    Operation first;
    Operation second;
    add(pool, first);
    add(pool, second);
    EXPECT_FALSE(second.hasBegun());
    first.letEnd();
    second.letEnd();
    second.waitForTheEnd();
}

TEST(GPThreadPool, ASlotWhoseThreadCouldNotBeMadeIsBusyForGood) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the address space that this takes away";
    EXPECT_EQ(testsupport::answerOfChild([] {
                  GPThreadPool& pool = lastingPool(1);
                  std::atomic<int> done{0};
                  const rlimit limited = {1, RLIM_INFINITY};
                  const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
                  setrlimit(RLIMIT_AS, &limited);
                  pool.addOperation(countUp, &done);
                  setrlimit(RLIMIT_AS, &unlimited);
                  pool.addOperation(countUp, &done);
                  pool.waitForAll();
                  return std::to_string(done);
              }),
              "0");
}

TEST(GPThreadPool, ReleaseWaitsForTheRunningOperations) {
    auto* pool = new GPThreadPool(1);
    Operation operation;
    add(*pool, operation);
    operation.threadWhenBegun();
    auto released = std::async(std::launch::async, [pool] { pool->release(); });
    while (!pool->isWaiting())
        std::this_thread::yield();
    EXPECT_EQ(released.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    operation.letEnd();
    released.wait();
    operation.waitForTheEnd();
}

TEST(GPThreadPool, AWorkerThatIsStillOnItsWayOutDoesNotTouchAReleasedPool) {
    for (int i = 0; i < 300; ++i) {
        std::vector<Operation> operations(2);
        auto* pool = new GPThreadPool(2);
        for (Operation& operation : operations)
            add(*pool, operation);
        for (Operation& operation : operations)
            operation.letEnd();
        pool->release();
        for (Operation& operation : operations)
            EXPECT_TRUE(operation.hasBegun());
    }
}

TEST(GPThreadPool, ManyThreadsMayAddOperations) {
    std::atomic<int> done{0};
    std::promise<void> all;
    struct Shared {
        std::atomic<int>& done;
        std::promise<void>& all;
    } shared{done, all};
    GPThreadPool pool(4);
    // The first four hold every slot until all the rest is queued.
    std::vector<Operation> holders(4);
    for (Operation& holder : holders)
        add(pool, holder);
    std::vector<std::thread> adders;
    for (int i = 0; i < 4; ++i)
        adders.emplace_back([&] {
            for (int k = 0; k < 25; ++k)
                pool.addOperation(
                    [](void* argument) {
                        auto* whole = static_cast<Shared*>(argument);
                        if (++whole->done == 100) whole->all.set_value();
                    },
                    &shared);
        });
    for (std::thread& adder : adders)
        adder.join();
    EXPECT_EQ(done, 0);
    // While the slots are being joined, the workers drain the queue themselves.
    std::thread waiter([&] { pool.waitForAll(); });
    while (!pool.isWaiting())
        std::this_thread::yield();
    for (int i = 1; i < 4; ++i)
        holders[i].letEnd();
    all.get_future().wait();
    holders[0].letEnd();
    waiter.join();
    EXPECT_EQ(done, 100);
}

} // namespace

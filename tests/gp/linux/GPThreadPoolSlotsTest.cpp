// Whether a slot of the pool can be lost to a worker that outruns its starter.

#include "gp/GPThreadPool.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <list>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using testsupport::eventually;

std::atomic<int> done{0};

void countUp(void*) { ++done; }

// The state letter of a thread of this process: 'S' where it waits.
char stateOf(const std::string& thread) {
    std::ifstream file("/proc/self/task/" + thread + "/stat");
    std::string word;
    for (char state; file >> word;)
        if (word.back() == ')' && file >> state) return state;
    return '?';
}

// Whether each thread of this process but the calling one waits.
bool allOthersWait() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string thread = entry.path().filename();
        if (thread != std::to_string(gettid()) && stateOf(thread) != 'S') return false;
    }
    return true;
}

// Whether the process has no thread but this one and one more: the last that goes, or the thread checker's own.
bool isNearlyAlone() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::distance(begin(threads), end(threads)) <= 2;
}

// Holds the starter back behind the creation of a thread, until that has done its work or waits. One that does
// neither within five seconds is in a loop.
int startAndFallBehind(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                       void* argument) {
    const int before = done;
    const int result = testsupport::startThread(thread, attributes, function, argument);
    EXPECT_TRUE(eventually([before] { return done > before || allOthersWait(); }));
    return result;
}

int failToStart(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }

// Whether the count comes to be so high. Each step has the patience for itself: all of them together take as long as a
// busy machine makes them.
bool reaches(const std::atomic<int>& count, int expected) {
    for (int seen = count; seen < expected; seen = count)
        if (!eventually([&] { return count > seen; })) return false;
    return true;
}

// Operations that have begun, and wait.
struct Waiting {
    std::atomic<int> begun{0};
    std::promise<void> end;
    const std::shared_future<void> mayEnd{end.get_future()};
};

// How many slots of the pool still run operations: so many can be under way at once. What waits takes no time from what
// is still to begin.
int liveSlots(GPThreadPool& pool, int expected) {
    static auto& all = *new std::list<Waiting>; // kept, for an operation that comes late
    Waiting& waiting = all.emplace_back();
    for (int i = 0; i < expected; ++i)
        pool.addOperation(
            [](void* held) {
                auto& one = *static_cast<Waiting*>(held);
                ++one.begun;
                one.mayEnd.wait();
            },
            &waiting);
    reaches(waiting.begun, expected);
    const int live = waiting.begun;
    waiting.end.set_value();
    return live;
}

TEST(GPThreadPoolSlots, AWorkerThatCouldOutrunItsStarterWaitsForItAndTheSlotLives) {
    GPThreadPool pool(1);
    testsupport::playThreadStarts(startAndFallBehind);
    for (int i = 0; i < 3; ++i)
        pool.addOperation(countUp, nullptr);
    EXPECT_TRUE(eventually([] { return done == 3; }));
    testsupport::playThreadStarts(nullptr);
    EXPECT_EQ(liveSlots(pool, 1), 1);
}

TEST(GPThreadPoolSlots, AWorkerThatIsStartedByAnotherWaitsForThatOne) {
    GPThreadPool pool(1);
    testsupport::playThreadStarts(startAndFallBehind);
    static std::atomic<bool> mayEnd{false};
    pool.addOperation(
        [](void*) {
            while (!mayEnd)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        },
        nullptr);
    for (int i = 0; i < 3; ++i)
        pool.addOperation(countUp, nullptr); // queued, for the finishing workers
    mayEnd = true;
    EXPECT_TRUE(eventually([] { return done == 3; }));
    testsupport::playThreadStarts(nullptr);
    EXPECT_EQ(liveSlots(pool, 1), 1);
}

// A pool that works its queue off with its lock held, behind the start of a worker.
struct LockedPool {
    GPThreadPool pool{3};
    std::atomic<bool> firstMayEnd{false};
    std::atomic<bool> secondMayEnd{false};
    std::atomic<bool> thirdMayEnd{false}; // waited for, so long
    std::atomic<bool> workerBegan{false};
    std::atomic<int> found{-1}; // whether the worker began, as the operation under the lock sees it
};

LockedPool* locked = nullptr;

// As the worker is started, another slot comes free and somebody begins to wait for all.
int startAsAllAreWaitedFor(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                           void* argument) {
    const int result = testsupport::startThread(thread, attributes, function, argument);
    locked->secondMayEnd = true;
    std::thread([] { locked->pool.waitForAll(); }).detach();
    EXPECT_TRUE(eventually([] { return locked->pool.isWaiting() && allOthersWait(); }));
    return result;
}

TEST(GPThreadPoolSlots, AWorkerBeginsWhileItsStarterHoldsThePoolsLockAcrossAnOperation) {
    locked = new LockedPool;
    const auto waitFor = [](void* mayEnd) {
        while (!*static_cast<std::atomic<bool>*>(mayEnd))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    for (std::atomic<bool>* mayEnd : {&locked->firstMayEnd, &locked->secondMayEnd, &locked->thirdMayEnd})
        locked->pool.addOperation(waitFor, mayEnd);
    locked->pool.addOperation([](void*) { locked->workerBegan = true; }, nullptr);
    locked->pool.addOperation(
        [](void*) { locked->found = eventually([] { return locked->workerBegan.load(); }); }, nullptr);
    testsupport::playThreadStarts(startAsAllAreWaitedFor);
    locked->firstMayEnd = true;
    EXPECT_TRUE(eventually([] { return locked->found >= 0; }));
    EXPECT_EQ(locked->found, 1);
    locked->thirdMayEnd = true;
    EXPECT_TRUE(eventually([] { return !locked->pool.isWaiting(); }));
}

TEST(GPThreadPoolSlots, ASlotWhoseThreadCannotBeMadeIsLostAndNoOther) {
    EXPECT_EQ(testsupport::answerOfChild([] {
                  auto& pool = *new GPThreadPool(3);
                  testsupport::playThreadStarts(failToStart);
                  pool.addOperation(countUp, nullptr);
                  testsupport::playThreadStarts(startAndFallBehind);
                  for (int i = 0; i < 10; ++i)
                      pool.addOperation(countUp, nullptr);
                  eventually([] { return done == 10; });
                  testsupport::playThreadStarts(nullptr);
                  return std::to_string(done) + " done, " + std::to_string(liveSlots(pool, 2)) + " live";
              }),
              "10 done, 2 live");
}

TEST(GPThreadPoolSlots, AThreadThatCannotBeMadeIsNotWaitedForAtThePoolsEnd) {
    EXPECT_EQ(testsupport::answerOfChild([] {
                  auto* pool = new GPThreadPool(1);
                  testsupport::playThreadStarts(failToStart);
                  pool->addOperation(countUp, nullptr);
                  testsupport::playThreadStarts(nullptr);
                  std::atomic<bool> released{false};
                  std::thread([&] {
                      pool->release();
                      released = true;
                  }).detach();
                  return std::string(eventually([&] { return released.load(); }) ? "released" : "waits");
              }),
              "released");
}

TEST(GPThreadPoolSlots, AllThirtyLiveAfterThousandsOfEmptyOperations) {
    // A slot is lost, by rule, to a thread that a bounded machine refuses, and each done operation can have one on its way
    // out: so the next hundred wait for those.
    constexpr int atOnce = 100;
    GPThreadPool pool(30);
    for (int added = 0; added < 5000; added += atOnce) {
        for (int i = 0; i < atOnce; ++i)
            pool.addOperation(countUp, nullptr);
        ASSERT_TRUE(reaches(done, added + atOnce));
        ASSERT_TRUE(eventually(isNearlyAlone));
    }
    EXPECT_EQ(liveSlots(pool, 30), 30);
}

} // namespace

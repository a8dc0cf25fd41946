#include "gp/GPMutex.h"

#include "support/ForkedChild.h"
#include "support/LockCounter.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

namespace {

TEST(GPMutex, ANewLockIsNotMarkedAsLocked) {
    GPMutex mutex;
    EXPECT_FALSE(mutex.isLocked());
}

TEST(GPMutex, LockSetsTheMarkAndUnlockTakesItAway) {
    GPMutex mutex;
    mutex.lock();
    EXPECT_TRUE(mutex.isLocked());
    mutex.unlock();
    EXPECT_FALSE(mutex.isLocked());
}

TEST(GPMutex, AThreadThatLocksAMutexItHoldsBlocksForEver) {
    EXPECT_TRUE(testsupport::neverEnds([] {
        GPMutex mutex;
        mutex.lock();
        mutex.lock();
    }));
}

TEST(GPMutex, AnotherThreadWaitsUntilTheHolderUnlocks) {
    GPMutex mutex;
    bool held = true;
    mutex.lock();
    auto seen = std::async(std::launch::async, [&] {
        mutex.lock();
        const bool stillHeld = held;
        mutex.unlock();
        return stillHeld;
    });
    held = false;
    mutex.unlock();
    EXPECT_FALSE(seen.get());
}

TEST(GPMutex, UnlockLowersTheFlagBeforeItUnlocksSoTheNextHolderKeepsItsMark) {
    GPMutex mutex;
    int lostMarks = 0;
    for (int i = 0; i < 500; ++i) {
        std::promise<void> locked;
        std::promise<void> looked;
        mutex.lock();
        std::thread next([&] {
            mutex.lock();
            locked.set_value();
            looked.get_future().wait();
            mutex.unlock();
        });
        mutex.unlock();
        locked.get_future().wait();
        if (!mutex.isLocked()) ++lostMarks;
        looked.set_value();
        next.join();
    }
    EXPECT_EQ(lostMarks, 0);
}

TEST(GPMutex, TheFlagIsDownWhenTheMutexIsFreed) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker has the place of the lock functions";
    GPMutex mutex;
    testsupport::LockCounter locks;
    std::vector<bool> marks;
    locks.behindEachLock([&] { marks.push_back(mutex.isLocked()); });
    locks.beforeEachUnlock([&] { marks.push_back(mutex.isLocked()); });
    mutex.lock();
    mutex.unlock();
    EXPECT_EQ(marks, (std::vector<bool>{false, false}));
}

TEST(GPMutexLock, HoldsTheMutexForItsScope) {
    GPMutex mutex;
    {
        GPMutexLock lock(&mutex);
        EXPECT_TRUE(mutex.isLocked());
    }
    EXPECT_FALSE(mutex.isLocked());
}

TEST(GPMutexLock, UnlocksAheadOfTheScopesEndOnce) {
    GPMutex mutex;
    GPMutexLock lock(&mutex);
    lock.unlock();
    EXPECT_FALSE(mutex.isLocked());
    mutex.lock();
    lock.unlock();
    EXPECT_TRUE(mutex.isLocked());
    mutex.unlock();
}

TEST(GPMutexLock, ANullMutexLocksNothing) {
    EXPECT_TRUE(testsupport::comesToItsEnd([] {
        GPMutexLock lock(nullptr);
        lock.unlock();
    }));
}

} // namespace

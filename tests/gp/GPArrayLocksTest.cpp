// The locks of a GPArray: the one of a safe() array, and the one of a shared reference count.

#include "gp/GPArray.h"

#include "gp/GPMutex.h"
#include "support/ForkedChild.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using testsupport::comesToItsEnd;
using testsupport::neverEnds;
using testsupport::TrackedObject;

namespace {

// Retains an array in its own destructor, and holds a lock meanwhile that stands where the last one was freed.
class LateOwner : public GPObject {
public:
    explicit LateOwner(GPArray& array) : array_(array) {}
    ~LateOwner() override {
        auto* const lock = new GPMutex();
        lock->lock();
        array_.safeRetain();
        lock->unlock();
        lock->release();
    }

private:
    GPArray& array_;
};

class GPArrayLocksTest : public testing::Test {
protected:
    GPObject first;
    GPObject second;
    GPArray array;
};

} // namespace

TEST_F(GPArrayLocksTest, SafeMakesTheLockAndOperationsTakeIt) {
    array.unlock();
    array.lock();
    array.lock();
    array.safe();
    EXPECT_TRUE(array.isSafe());
    array.addObject(&first);
    EXPECT_EQ(array.count(), 1);
    EXPECT_EQ(array.objectAtIndex(0), &first);

    EXPECT_TRUE(neverEnds([this] {
        array.lock();
        array.count();
    }));
    EXPECT_TRUE(neverEnds([this] {
        array.lock();
        array.addObject(&second);
    }));
}

TEST_F(GPArrayLocksTest, SomeReadersOfASafeArrayTakeNoLock) {
    array.safe();
    array.addObject(&first);
    array.lock();

    EXPECT_EQ(array.valueAtIndex(0), &first);
    EXPECT_EQ(array.indexOfObject(&first), 0);
    EXPECT_EQ(array.indexOfValue(&first), 0);
    EXPECT_EQ(array.removeObjectAtIndex(7), nullptr);
    array.expandArray(9);
    array.unlock();
}

TEST_F(GPArrayLocksTest, SortOfASafeArrayHoldsTheLockForTheCountAlone) {
    array.safe();
    array.addObject(&first);
    array.addObject(&second);
    static bool locked;
    static GPArray* sorted;
    locked = false;
    sorted = &array;

    // The comparator can take the lock, so nobody holds it.
    array.sort([](const void*, const void*) {
        sorted->lock();
        sorted->unlock();
        locked = true;
        return 0;
    });

    EXPECT_TRUE(locked);
    EXPECT_TRUE(neverEnds([this] {
        array.lock();
        array.sort([](const void*, const void*) { return 0; });
    }));
}

TEST_F(GPArrayLocksTest, RemovalOnASafeArrayBlocksForEver) {
    array.safe();
    array.addObject(&first);
    array.addObject(&second);

    EXPECT_TRUE(neverEnds([this] { array.removeObject(&first); }));
    EXPECT_TRUE(neverEnds([this] { array.removeValueAtIndex(0); }));
}

TEST_F(GPArrayLocksTest, RemovalOfTheOnlyEntryOfASafeArrayBlocksAtTheNextUse) {
    array.safe();
    array.addObject(&first);

    EXPECT_FALSE(neverEnds([this] { array.removeValue(&first); }));
    EXPECT_TRUE(neverEnds([this] {
        array.removeValue(&first);
        array.count();
    }));
}

TEST_F(GPArrayLocksTest, RemovalOfAnAbsentValueFreesTheLockOfASafeArray) {
    array.safe();
    array.addObject(&first);

    EXPECT_EQ(array.removeValue(&second), -1);
    EXPECT_EQ(array.count(), 1);
}

TEST_F(GPArrayLocksTest, SafeRetainCountsLikeRetain) {
    EXPECT_EQ(array.safeRetain(), 2);
    EXPECT_EQ(array.safeRetain(), 3);
    EXPECT_EQ(array.release(), 2);
    EXPECT_EQ(array.release(), 1);
}

TEST_F(GPArrayLocksTest, GuardedReleaseOfTheLastReferenceDestroysOnce) {
    int destroyed = 0;
    auto* guarded = new GPArray();
    auto* entry = new TrackedObject(destroyed);
    guarded->addObject(entry);
    entry->release();
    guarded->safeRetain();

    EXPECT_EQ(guarded->release(), 1);
    EXPECT_EQ(destroyed, 0);
    guarded->release();
    EXPECT_EQ(destroyed, 1);
}

TEST_F(GPArrayLocksTest, AnElementThatRetainsTheArrayWhileItIsDestroyedTakesNoLockOfIt) {
    EXPECT_TRUE(comesToItsEnd([] {
        auto* guarded = new GPArray();
        auto* entry = new LateOwner(*guarded);
        guarded->addObject(entry);
        entry->release();
        guarded->safeRetain();
        guarded->release();
        guarded->release();
    }));
}

TEST_F(GPArrayLocksTest, UnguardedReleaseIsThatOfEveryObject) {
    int destroyed = 0;
    auto* plain = new GPArray();
    auto* entry = new TrackedObject(destroyed);
    plain->addObject(entry);
    entry->release();
    plain->retain();

    EXPECT_EQ(plain->release(), 1);
    plain->release();
    EXPECT_EQ(destroyed, 1);
}

TEST_F(GPArrayLocksTest, GuardedCountHoldsBetweenThreads) {
    constexpr int rounds = 2000;
    int destroyed = 0;
    auto* shared = new GPArray();
    auto* entry = new TrackedObject(destroyed);
    shared->addObject(entry);
    entry->release();
    shared->safeRetain();

    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([shared] {
            for (int round = 0; round < rounds; ++round) {
                shared->safeRetain();
                shared->release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(shared->release(), 1);
    shared->release();
    EXPECT_EQ(destroyed, 1);
}

TEST_F(GPArrayLocksTest, LastReferencesReleasedByManyThreadsDestroyTheArrayExactlyOnce) {
    for (int round = 0; round < 100; ++round) {
        int destroyed = 0;
        auto* shared = new GPArray();
        auto* entry = new TrackedObject(destroyed);
        shared->addObject(entry);
        entry->release();
        for (int index = 0; index < 3; ++index) {
            shared->safeRetain();
        }
        std::vector<std::thread> threads;
        for (int index = 0; index < 4; ++index) {
            threads.emplace_back([shared] { shared->release(); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(destroyed, 1);
    }
}

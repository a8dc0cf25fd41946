#include "gp/GPAutoReleasePool.h"

#include "gp/GPArray.h"
#include "gp/GPThread.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

using testsupport::references;
using testsupport::TrackedObject;

namespace {

// Autoreleases another object while it is destroyed.
class LateReleaser : public GPObject {
public:
    explicit LateReleaser(GPObject* late) : late_(late) {}
    ~LateReleaser() override { late_->autorelease(); }

private:
    GPObject* late_;
};

std::string drained(GPAutoReleasePool* pool) {
    testing::internal::CaptureStdout();
    pool->drain();
    return testing::internal::GetCapturedStdout();
}

std::string integrityError(unsigned long poolKey, unsigned long currentKey) {
    return "!!!WARNING: Internal Error: autorelease-pool integrity error. (pool=" + std::to_string(poolKey) +
           " currentpool=" + std::to_string(currentKey) + ")\n";
}

void runOnOwnThread(void (*function)()) {
    std::thread thread(function);
    thread.join();
}

} // namespace

TEST(GPAutoReleasePool, ThereIsNoTopPoolBeforeTheFirstPool) {
    EXPECT_EQ(PoolKey, 0u);
    EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
}

TEST(GPAutoReleasePool, FirstPoolMakesTheKeyWhichIsNeverZero) {
    auto* pool = new GPAutoReleasePool();

    EXPECT_NE(PoolKey, 0u);
    EXPECT_EQ(GPAutoReleasePool::topPool(), pool);
    EXPECT_EQ(references(pool), 2);
    EXPECT_EQ(drained(pool), "");
}

TEST(GPAutoReleasePool, PoolsStackUp) {
    auto* outer = new GPAutoReleasePool();
    auto* inner = new GPAutoReleasePool();
    EXPECT_EQ(GPAutoReleasePool::topPool(), inner);
    EXPECT_EQ(references(inner), 2);

    EXPECT_EQ(drained(inner), "");

    EXPECT_EQ(GPAutoReleasePool::topPool(), outer);
    EXPECT_EQ(drained(outer), "");
}

TEST(GPAutoReleasePool, TopPoolOnAThreadWhoseStackIsEmptyIsNull) {
    auto* pool = new GPAutoReleasePool();
    pool->drain();

    EXPECT_NE(GPThread::getLocalThreadValue(PoolKey), nullptr);
    EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
}

TEST(GPAutoReleasePool, StackSurvivesAnEmptyStateAndIsReused) {
    auto* first = new GPAutoReleasePool();
    void* stack = GPThread::getLocalThreadValue(PoolKey);
    const unsigned long key = PoolKey;
    first->drain();

    auto* second = new GPAutoReleasePool();

    EXPECT_EQ(GPThread::getLocalThreadValue(PoolKey), stack);
    EXPECT_EQ(PoolKey, key);
    EXPECT_EQ(GPAutoReleasePool::topPool(), second);
    EXPECT_EQ(drained(second), "");
}

TEST(GPAutoReleasePool, DrainOfAPoolInTheMiddleLeavesTheOnesAboveInPlace) {
    auto* bottom = new GPAutoReleasePool();
    auto* middle = new GPAutoReleasePool();
    auto* top = new GPAutoReleasePool();

    EXPECT_EQ(drained(middle), "");

    auto* stack = static_cast<GPArray*>(GPThread::getLocalThreadValue(PoolKey));
    ASSERT_EQ(stack->count(), 2);
    EXPECT_EQ(stack->objectAtIndex(0), bottom);
    EXPECT_EQ(stack->objectAtIndex(1), top);
    EXPECT_EQ(GPAutoReleasePool::topPool(), top);
    top->drain();
    bottom->drain();
}

TEST(GPAutoReleasePool, DrainDestroysThePoolWhateverItsCount) {
    auto* pool = new GPAutoReleasePool();
    pool->retain();
    pool->retain();

    EXPECT_EQ(drained(pool), "");
    EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
}

TEST(GPAutoReleasePool, DrainOfANullPoolIsIgnored) {
    auto* pool = new GPAutoReleasePool();
    GPAutoReleasePool::drain(nullptr);
    EXPECT_EQ(GPAutoReleasePool::topPool(), pool);

    GPAutoReleasePool::drain(pool);

    EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
}

TEST(GPAutoReleasePool, ReleaseOfBothReferencesDestroysItToo) {
    int destroyed = 0;
    auto* pool = new GPAutoReleasePool();
    (new TrackedObject(destroyed))->autorelease();

    EXPECT_EQ(pool->release(), 1);
    EXPECT_EQ(destroyed, 0);
    pool->release();

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
}

TEST(GPAutoReleasePool, LocalPoolEndsWithItsScope) {
    int destroyed = 0;
    {
        GPAutoReleasePool pool;
        (new TrackedObject(destroyed))->autorelease();
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
}

TEST(GPAutoReleasePool, DrainReleasesEachEntryTwice) {
    auto* pool = new GPAutoReleasePool();
    GPObject object;
    object.retain();
    object.retain();
    object.autorelease();
    EXPECT_EQ(references(&object), 4);

    pool->drain();

    EXPECT_EQ(references(&object), 2);
}

TEST(GPAutoReleasePool, ObjectsGoToTheTopPool) {
    int innerDestroyed = 0;
    int outerDestroyed = 0;
    auto* outer = new GPAutoReleasePool();
    (new TrackedObject(outerDestroyed))->autorelease();
    auto* inner = new GPAutoReleasePool();
    (new TrackedObject(innerDestroyed))->autorelease();

    inner->drain();
    EXPECT_EQ(innerDestroyed, 1);
    EXPECT_EQ(outerDestroyed, 0);
    outer->drain();
    EXPECT_EQ(outerDestroyed, 1);
}

TEST(GPAutoReleasePool, AddObjectRetainsAndRemoveObjectReleases) {
    auto* pool = new GPAutoReleasePool();
    GPObject object;
    pool->addObject(nullptr);
    pool->removeObject(nullptr);
    pool->addObject(&object);
    EXPECT_EQ(references(&object), 2);

    pool->removeObject(&object);

    EXPECT_EQ(references(&object), 1);
    pool->drain();
    EXPECT_EQ(references(&object), 1);
}

TEST(GPAutoReleasePool, EntryThatDiesAtItsFirstReleaseIsNotReleasedAgain) {
    int destroyed = 0;
    int other = 0;
    auto* pool = new GPAutoReleasePool();
    auto* object = new TrackedObject(destroyed);
    pool->addObject(object);
    object->release();
    (new TrackedObject(other))->autorelease();

    pool->drain();

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(other, 1);
}

TEST(GPAutoReleasePool, EntryThatWasAddedTwiceAndDiesEarlyIsNotReleasedAgain) {
    int destroyed = 0;
    int between = 0;
    int behind = 0;
    auto* pool = new GPAutoReleasePool();
    auto* object = new TrackedObject(destroyed);
    pool->addObject(object);
    (new TrackedObject(between))->autorelease();
    pool->addObject(object);
    (new TrackedObject(behind))->autorelease();
    object->release();

    pool->drain();

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(between, 1);
    EXPECT_EQ(behind, 1);
}

TEST(GPAutoReleasePool, ObjectAutoreleasedByADestructorDuringTheDrainIsHandledInTheSamePass) {
    int destroyed = 0;
    auto* pool = new GPAutoReleasePool();
    auto* dying = new LateReleaser(new TrackedObject(destroyed));
    pool->addObject(dying);
    dying->release();

    pool->drain();

    EXPECT_EQ(destroyed, 1);
}

// Autoreleases more than it leaves room for.
class LateReleaserOfTwo : public LateReleaser {
public:
    LateReleaserOfTwo(GPObject* late, GPObject* later) : LateReleaser(late), later_(later) {}
    ~LateReleaserOfTwo() override { later_->autorelease(); }

private:
    GPObject* later_;
};

TEST(GPAutoReleasePool, TheCountIsReadAtEachStepOfTheDrain) {
    int destroyed = 0;
    auto* pool = new GPAutoReleasePool();
    auto* dying = new LateReleaserOfTwo(new TrackedObject(destroyed), new TrackedObject(destroyed));
    pool->addObject(dying);
    dying->release();

    pool->drain();

    EXPECT_EQ(destroyed, 2) << "the pool held one object when its drain began";
}

TEST(GPAutoReleasePool, ManyObjectsFitThePool) {
    int destroyed = 0;
    auto* pool = new GPAutoReleasePool();
    for (int index = 0; index < 1000; ++index) {
        (new TrackedObject(destroyed))->autorelease();
    }

    pool->drain();

    EXPECT_EQ(destroyed, 1000);
}

TEST(GPAutoReleasePool, DifferingKeysPrintTheIntegrityError) {
    auto* pool = new GPAutoReleasePool();
    const unsigned long oldKey = PoolKey;
    PoolKey = 0;
    auto* other = new GPAutoReleasePool();
    const unsigned long newKey = PoolKey;
    ASSERT_NE(newKey, oldKey);

    EXPECT_EQ(drained(pool), integrityError(oldKey, newKey));
    EXPECT_EQ(drained(other), "");
}

TEST(GPAutoReleasePool, MissingStackPrintsTheIntegrityErrorAfterReleasingTheObjects) {
    static GPAutoReleasePool* pool = nullptr;
    static GPObject object;
    pool = new GPAutoReleasePool();
    object.retain();
    object.autorelease();
    testing::internal::CaptureStdout();

    runOnOwnThread([] { pool->drain(); });

    EXPECT_EQ(testing::internal::GetCapturedStdout(), integrityError(PoolKey, PoolKey));
    EXPECT_EQ(references(&object), 1);
    // The stack still names the pool that is gone.
    static_cast<GPArray*>(GPThread::getLocalThreadValue(PoolKey))->removeValueAtIndex(0);
}

TEST(GPAutoReleasePool, EachThreadHasItsOwnStack) {
    auto* pool = new GPAutoReleasePool();
    static GPAutoReleasePool* seen = nullptr;
    static int destroyed = 0;
    seen = pool;

    runOnOwnThread([] {
        EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
        auto* own = new GPAutoReleasePool();
        EXPECT_EQ(GPAutoReleasePool::topPool(), own);
        (new TrackedObject(destroyed))->autorelease();
        own->drain();
    });

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(GPAutoReleasePool::topPool(), seen);
    pool->drain();
}

TEST(GPAutoReleasePool, PoolLeftOnAThreadThatEndsIsNeitherDestroyedNorDrained) {
    static int destroyed = 0;
    static GPAutoReleasePool* left = nullptr;

    runOnOwnThread([] {
        left = new GPAutoReleasePool();
        (new TrackedObject(destroyed))->autorelease();
    });

    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(references(left), 1);
    EXPECT_EQ(drained(left), integrityError(PoolKey, PoolKey));
    EXPECT_EQ(destroyed, 1);
}

TEST(GPAutoReleasePool, PoolOfAnEndedThreadCanBeDrainedWhereThereIsAnotherStack) {
    static int destroyed = 0;
    static GPAutoReleasePool* left = nullptr;
    auto* own = new GPAutoReleasePool();
    runOnOwnThread([] {
        left = new GPAutoReleasePool();
        (new TrackedObject(destroyed))->autorelease();
    });

    EXPECT_EQ(drained(left), "");

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(GPAutoReleasePool::topPool(), own);
    own->drain();
}

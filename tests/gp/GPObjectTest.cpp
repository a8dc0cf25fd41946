#include "gp/GPObject.h"

#include "gp/GPArray.h"
#include "gp/GPData.h"
#include "gp/GPList.h"
#include "gp/GPMap.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"
#include "gp/Owned.h"
#include "support/AllocationCounter.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

using testsupport::PoolScope;
using testsupport::references;
using testsupport::TrackedObject;

namespace {

// Does something with itself while it is destroyed.
class DyingObject : public GPObject {
public:
    ~DyingObject() override {
        releasedAgain = release();
        releasedOnlyAgain = releaseonly();
        ++destructions;
    }

    static int releasedAgain;
    static int releasedOnlyAgain;
    static int destructions;
};

int DyingObject::releasedAgain = 0;
int DyingObject::releasedOnlyAgain = 0;
int DyingObject::destructions = 0;

// Retains itself while it is destroyed.
class RetainingObject : public GPObject {
public:
    ~RetainingObject() override { afterRetain = retainonly(); }

    static int afterRetain;
};

int RetainingObject::afterRetain = 0;

class NamelessObject : public GPObject {
public:
    const char* cclassName() override { return nullptr; }
};

} // namespace

TEST(GPObject, StartsWithOneReference) {
    GPObject object;

    EXPECT_EQ(references(&object), 1);
}

TEST(GPObject, RetainAnswersTheObjectItself) {
    GPObject object;

    EXPECT_EQ(object.retain(), &object);
    EXPECT_EQ(references(&object), 2);
}

TEST(GPObject, RetainonlyAnswersTheNewCount) {
    GPObject object;

    EXPECT_EQ(object.retainonly(), 2);
    EXPECT_EQ(object.retainonly(), 3);
}

TEST(GPObject, ReleaseAnswersTheNewCount) {
    int destroyed = 0;
    auto* object = new TrackedObject(destroyed);
    object->retain();
    object->retain();

    EXPECT_EQ(object->release(), 2);
    EXPECT_EQ(object->release(), 1);
    EXPECT_EQ(destroyed, 0);
    object->release();
    EXPECT_EQ(destroyed, 1);
}

TEST(GPObject, CountingAllocatesNothing) {
    int destroyed = 0;
    auto* object = new TrackedObject(destroyed);
    testsupport::AllocationCounter allocations;

    object->retain();
    object->retainonly();
    object->releaseonly();
    object->release();
    object->release();

    EXPECT_EQ(allocations.count(), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(GPObject, RetainOnTheDestroyedMarkMovesItToMinus99) {
    (new RetainingObject())->release();

    EXPECT_EQ(RetainingObject::afterRetain, GPObject::lastReferenceGone);
}

TEST(GPObject, ReleaseDuringDestructionAnswersMinus100AndDoesNotRunTheDestructorAgain) {
    (new DyingObject())->release();

    EXPECT_EQ(DyingObject::releasedAgain, -100);
    EXPECT_EQ(DyingObject::releasedOnlyAgain, -100);
    EXPECT_EQ(DyingObject::destructions, 1);
}

TEST(GPObject, ReleaseOfAnObjectAlreadyAtMinus100AnswersMinus100AndDoesNotRunTheDestructor) {
    int destroyed = 0;
    {
        TrackedObject object(destroyed);
        object.releaseonly();
        object.releaseonly();

        EXPECT_EQ(object.release(), -100);
        EXPECT_EQ(object.release(), -100);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(GPObject, ReleaseonlyGoesOverMinus99ToMinus100AndNeverDestroys) {
    int destroyed = 0;
    TrackedObject object(destroyed);

    EXPECT_EQ(object.releaseonly(), -99);
    EXPECT_EQ(object.releaseonly(), -100);
    EXPECT_EQ(object.releaseonly(), -100);
    EXPECT_EQ(destroyed, 0);
}

TEST(GPObject, ReleaseonlyAboveOneCountsDown) {
    GPObject object;
    object.retain();

    EXPECT_EQ(object.releaseonly(), 1);
}

TEST(GPObject, ReleaseAtMinus99CountsDownToMinus100WithoutDestroying) {
    int destroyed = 0;
    TrackedObject object(destroyed);
    object.releaseonly();

    EXPECT_EQ(object.release(), -100);
    EXPECT_EQ(destroyed, 0);
}

TEST(GPObject, RetainOnMinus99MovesTheCountToMinus98) {
    GPObject object;
    object.releaseonly();

    EXPECT_EQ(object.retainonly(), -98);
}

TEST(GPObject, AutoreleaseWithoutAPoolPrintsNothingAndLeavesTheCountAtOne) {
    GPObject object;
    testing::internal::CaptureStdout();

    EXPECT_EQ(object.autorelease(), &object);
    EXPECT_EQ(object.autorelease(), &object);

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(references(&object), 1);
}

TEST(GPObject, AutoreleasedObjectHasCountTwoInThePoolAndDiesWithIt) {
    int destroyed = 0;
    auto* pool = new GPAutoReleasePool();
    auto* object = new TrackedObject(destroyed);

    EXPECT_EQ(object->autorelease(), object);
    EXPECT_EQ(references(object), 2);

    pool->drain();
    EXPECT_EQ(destroyed, 1);
}

TEST(GPObject, AutoreleasedObjectThatWasRetainedOutlivesThePool) {
    int destroyed = 0;
    auto* pool = new GPAutoReleasePool();
    auto* object = new TrackedObject(destroyed);
    object->autorelease();
    object->retain();
    EXPECT_EQ(references(object), 3);

    pool->drain();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(references(object), 1);
    object->release();
    EXPECT_EQ(destroyed, 1);
}

TEST(GPObject, SecondAutoreleaseWarnsAndAddsNothing) {
    PoolScope pool;
    auto* object = new GPObject();
    object->autorelease();
    testing::internal::CaptureStdout();

    EXPECT_EQ(object->autorelease(), object);

    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "!!!WARNING: Internal Error: object autorelease integrity error. (count=1 class=GPObject)\n");
    EXPECT_EQ(references(object), 2);
}

TEST(GPObject, SecondAutoreleaseAfterARetainStillWarnsAndChangesNoCount) {
    PoolScope pool;
    auto object = Owned<GPString>::adopt(new GPString("x"));
    object->autorelease();
    object->retain();
    testing::internal::CaptureStdout();

    object->autorelease();

    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "!!!WARNING: Internal Error: object autorelease integrity error. (count=1 class=GPString)\n");
    EXPECT_EQ(references(object.get()), 3);
}

TEST(GPObject, AutoreleaseMarkOutlivesThePoolThatSetIt) {
    GPObject* object = new GPObject();
    {
        PoolScope first;
        object->retain();
        object->autorelease();
    }
    EXPECT_EQ(references(object), 1);
    PoolScope second;
    testing::internal::CaptureStdout();

    object->autorelease();

    EXPECT_NE(testing::internal::GetCapturedStdout().find("integrity error. (count=1"), std::string::npos);
    EXPECT_EQ(references(object), 1);
    object->release();
}

TEST(GPObject, IsInstanceOfComparesTheOwnNameAlone) {
    GPArray array;
    GPObject object;
    NamelessObject nameless;

    EXPECT_TRUE(array.isInstanceOf("GPArray"));
    EXPECT_FALSE(array.isInstanceOf("GPObject"));
    EXPECT_FALSE(array.isInstanceOf("GPArra"));
    EXPECT_FALSE(array.isInstanceOf(nullptr));
    EXPECT_TRUE(object.isInstanceOf("GPObject"));
    EXPECT_FALSE(nameless.isInstanceOf("GPObject"));
    EXPECT_FALSE(nameless.isInstanceOf(nullptr));
}

TEST(GPObject, ClassWithoutACclassNameOfItsOwnIsAnInstanceOfGPObjectOnly) {
    GPMutex mutex;

    EXPECT_TRUE(mutex.isInstanceOf("GPObject"));
    EXPECT_FALSE(mutex.isInstanceOf("GPMutex"));
}

TEST(GPObject, SyncdArrayIsNoInstanceOfItsClassName) {
    PoolScope pool;
    GPSyncdArray array;

    EXPECT_STREQ(array.className()->cstr(), "GPSyncdArray");
    EXPECT_STREQ(array.cclassName(), "GPObject");
    EXPECT_FALSE(array.isInstanceOf("GPSyncdArray"));
    EXPECT_TRUE(array.isInstanceOf("GPObject"));
    array.getInternalArray()->release();
}

TEST(GPObject, ClassesSayTheirNamesInBothForms) {
    PoolScope pool;
    GPArray array;
    GPList list;
    GPMap map;
    GPString string;
    GPData data;
    struct {
        GPObject* object;
        const char* name;
    } const rows[] = {
        {&array, "GPArray"}, {&list, "GPList"}, {&map, "GPMap"}, {&string, "GPString"}, {&data, "GPData"}};

    for (const auto& row : rows) {
        EXPECT_STREQ(row.object->className()->cstr(), row.name);
        EXPECT_STREQ(row.object->cclassName(), row.name);
        EXPECT_TRUE(row.object->isInstanceOf(row.name));
    }
}

TEST(GPObject, ClassNameIsAutoreleased) {
    PoolScope pool;
    GPObject object;
    GPString* name = object.className();

    EXPECT_STREQ(name->cstr(), "GPObject");
    EXPECT_EQ(references(name), 2);
}

TEST(GPObject, BaseNameIsWritableForTheWholeProcess) {
    PoolScope pool;
    GPObject object;
    gpobjectClassName = "Renamed";

    EXPECT_STREQ(object.cclassName(), "Renamed");
    EXPECT_STREQ(object.className()->cstr(), "Renamed");
    EXPECT_TRUE(object.isInstanceOf("Renamed"));
    gpobjectClassName = "GPObject";
}

TEST(GPObject, AutomaticLocalNeedsNoRelease) {
    int destroyed = 0;
    {
        TrackedObject local(destroyed);
        EXPECT_EQ(references(&local), 1);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(Owned, AdoptTakesTheCallersReferenceOver) {
    int destroyed = 0;
    {
        auto owned = Owned<TrackedObject>::adopt(new TrackedObject(destroyed));
        EXPECT_EQ(references(owned.get()), 1);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(Owned, RetainTakesAReferenceOfItsOwn) {
    int destroyed = 0;
    auto* object = new TrackedObject(destroyed);
    {
        auto owned = Owned<TrackedObject>::retain(object);
        EXPECT_EQ(references(object), 2);
    }
    EXPECT_EQ(references(object), 1);
    object->release();
    EXPECT_EQ(destroyed, 1);
}

TEST(Owned, HandOverLeavesTheReferenceToTheCaller) {
    int destroyed = 0;
    TrackedObject* object = nullptr;
    {
        auto owned = Owned<TrackedObject>::adopt(new TrackedObject(destroyed));
        object = owned.handOver();
        EXPECT_FALSE(owned);
    }
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(references(object), 1);
    object->release();
}

TEST(Owned, MoveReleasesWhatTheTargetHeld) {
    int first = 0;
    int second = 0;
    auto target = Owned<TrackedObject>::adopt(new TrackedObject(first));
    auto source = Owned<TrackedObject>::adopt(new TrackedObject(second));

    target = std::move(source);

    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(references(target.get()), 1);
}

#include "gp/GPArray.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <cstring>

using testsupport::PoolScope;
using testsupport::references;
using testsupport::TrackedObject;

namespace {

// Takes another entry out of its array in its own destructor.
class TakesAnotherAlong : public GPObject {
public:
    TakesAnotherAlong(GPArray& array, GPObject& other) : array_(array), other_(other) {}
    ~TakesAnotherAlong() override { array_.removeObject(&other_); }

private:
    GPArray& array_;
    GPObject& other_;
};

class GPArrayTest : public testing::Test {
protected:
    // Fills the array under test with plain pointers to the first `count` slots.
    void addSlots(int count) {
        for (int index = 0; index < count; ++index) {
            array.addValue(&slots[index]);
        }
    }

    int slots[20] = {};
    GPObject first;
    GPObject second;
    GPObject third;
    GPArray array;
};

int byText(const void* left, const void* right) {
    return std::strcmp((*static_cast<GPString* const*>(left))->cstr(),
                       (*static_cast<GPString* const*>(right))->cstr());
}

} // namespace

TEST_F(GPArrayTest, StartsEmptyWithCapacityFive) {
    GPArray two(2);
    GPArray zero(0);
    GPArray negative(-3);

    EXPECT_EQ(array.count(), 0);
    EXPECT_EQ(array.arraySpace(), 5);
    EXPECT_EQ(two.arraySpace(), 2);
    EXPECT_EQ(zero.arraySpace(), 5);
    EXPECT_EQ(negative.arraySpace(), 5);
    EXPECT_FALSE(array.isSafe());
    EXPECT_STREQ(GPArray::GPArrayClassName(), "GPArray");
}

TEST_F(GPArrayTest, AddObjectRetainsAndTheDestructorReleases) {
    {
        GPArray local;
        local.addObject(&first);
        EXPECT_EQ(references(&first), 2);
        local.addObject(&first);
        EXPECT_EQ(references(&first), 3);
        EXPECT_EQ(local.objectAtIndex(1), &first);
        EXPECT_EQ(references(&first), 3);
    }
    EXPECT_EQ(references(&first), 1);
}

TEST_F(GPArrayTest, AddOfNullDoesNothing) {
    array.addObject(nullptr);
    array.addValue(nullptr);

    EXPECT_EQ(array.count(), 0);
}

TEST_F(GPArrayTest, SixthElementGrowsCapacityFiveToTen) {
    addSlots(5);
    EXPECT_EQ(array.arraySpace(), 5);

    array.addValue(&slots[5]);

    EXPECT_EQ(array.arraySpace(), 10);
    EXPECT_EQ(array.count(), 6);
    for (int index = 0; index < 6; ++index) {
        EXPECT_EQ(array.valueAtIndex(index), &slots[index]);
    }
}

TEST_F(GPArrayTest, SecondElementGrowsCapacityOneToTwo) {
    GPArray one(1);
    one.addObject(&first);
    EXPECT_EQ(one.arraySpace(), 1);

    one.addObject(&second);

    EXPECT_EQ(one.arraySpace(), 2);
    EXPECT_EQ(one.objectAtIndex(1), &second);
}

TEST_F(GPArrayTest, RoomForTheCapacityIsThereFromTheFirstEntryAndAfterTheLastHasGone) {
    for (const int capacity : {5, 6, 8, 20}) {
        GPArray some(capacity);
        for (int round = 0; round < 2; ++round) {
            for (int index = 0; index < capacity; ++index)
                some.addValue(&slots[index]);
            EXPECT_EQ(some.arraySpace(), capacity);
            for (int index = 0; index < capacity; ++index)
                EXPECT_EQ(some.valueAtIndex(index), &slots[index]);
            for (int index = capacity - 1; index >= 0; --index)
                EXPECT_EQ(some.removeValue(&slots[index]), index);
            EXPECT_EQ(some.count(), 0);
        }
    }
}

TEST_F(GPArrayTest, ExpandArrayOnlyEverRaisesTheCapacity) {
    addSlots(3);
    array.expandArray(5);
    array.expandArray(2);
    array.expandArray(-1);
    EXPECT_EQ(array.arraySpace(), 5);

    array.expandArray(6);

    EXPECT_EQ(array.arraySpace(), 6);
    EXPECT_EQ(array.count(), 3);
    EXPECT_EQ(array.valueAtIndex(2), &slots[2]);
}

TEST_F(GPArrayTest, BadIndexIsNull) {
    array.addObject(&first);

    for (int index : {-1, 1, 100}) {
        EXPECT_EQ(array.objectAtIndex(index), nullptr);
        EXPECT_EQ(array.valueAtIndex(index), nullptr);
        EXPECT_EQ(array.removeObjectAtIndex(index), nullptr);
        EXPECT_EQ(array.removeValueAtIndex(index), nullptr);
    }
    EXPECT_EQ(array.count(), 1);
    EXPECT_EQ(references(&first), 2);
}

TEST_F(GPArrayTest, IndexIsTheFirstByIdentity) {
    GPString one("same");
    GPString other("same");
    array.addValue(&one);
    array.addValue(&first);
    array.addValue(&first);

    EXPECT_EQ(array.indexOfObject(&first), 1);
    EXPECT_EQ(array.indexOfValue(&one), 0);
    EXPECT_EQ(array.indexOfObject(&other), -1);
    EXPECT_EQ(array.indexOfObject(nullptr), -1);
    EXPECT_EQ(array.indexOfValue(nullptr), -1);
}

TEST_F(GPArrayTest, RemoveObjectReleasesAndAnswersTheIndex) {
    array.addObject(&first);
    array.addObject(&second);
    array.addObject(&third);

    EXPECT_EQ(array.removeObject(&second), 1);

    EXPECT_EQ(references(&second), 1);
    EXPECT_EQ(array.count(), 2);
    EXPECT_EQ(array.objectAtIndex(0), &first);
    EXPECT_EQ(array.objectAtIndex(1), &third);
    EXPECT_EQ(array.arraySpace(), 5);
}

TEST_F(GPArrayTest, RemoveOfAnObjectThatIsNotThereStillReleasesItOnce) {
    array.addObject(&first);
    second.retain();

    EXPECT_EQ(array.removeObject(&second), -1);

    EXPECT_EQ(references(&second), 1);
    EXPECT_EQ(array.count(), 1);
    EXPECT_EQ(array.removeObject(nullptr), -1);
}

TEST_F(GPArrayTest, RemoveValueTouchesNoCounts) {
    array.addValue(&first);
    array.addValue(&second);

    EXPECT_EQ(array.removeValue(&first), 0);
    EXPECT_EQ(array.removeValue(&first), -1);
    EXPECT_EQ(array.removeValue(nullptr), -1);

    EXPECT_EQ(references(&first), 1);
    EXPECT_EQ(array.valueAtIndex(0), &second);
}

TEST_F(GPArrayTest, RemoveValueAtIndexThreeOfAPointerAtOneAndThreeRemovesPositionOne) {
    for (int* value : {&slots[0], &slots[1], &slots[2], &slots[1]}) {
        array.addValue(value);
    }

    EXPECT_EQ(array.removeValueAtIndex(3), &slots[1]);

    EXPECT_EQ(array.count(), 3);
    EXPECT_EQ(array.valueAtIndex(0), &slots[0]);
    EXPECT_EQ(array.valueAtIndex(1), &slots[2]);
    EXPECT_EQ(array.valueAtIndex(2), &slots[1]);
}

TEST_F(GPArrayTest, RemoveObjectAtIndexReleasesAndAnswersThePointer) {
    array.addObject(&first);
    array.addObject(&second);

    EXPECT_EQ(array.removeObjectAtIndex(0), &first);

    EXPECT_EQ(references(&first), 1);
    EXPECT_EQ(array.objectAtIndex(0), &second);
}

TEST_F(GPArrayTest, OneAddValueKeepsTheDestructorFromReleasingObjects) {
    {
        GPArray local;
        local.addObject(&first);
        local.addValue(&second);
    }
    EXPECT_EQ(references(&first), 2);
    EXPECT_EQ(references(&second), 1);
}

TEST_F(GPArrayTest, AddObjectAfterAddValueLeavesTheArrayOneOfValues) {
    {
        GPArray local;
        local.addValue(&second);
        local.addObject(&first);
    }
    EXPECT_EQ(references(&first), 2);
}

TEST_F(GPArrayTest, RemoveAllObjectsReleasesTheValuesOfAValueArray) {
    first.retain();
    array.addValue(&first);

    array.removeAllObjects();

    EXPECT_EQ(references(&first), 1);
    EXPECT_EQ(array.count(), 0);
}

TEST_F(GPArrayTest, RemoveAllObjectsReleasesEachOnceWhenOneThatGoesTakesAnotherAlong) {
    first.retain();
    for (int between = 0; between < 6; ++between) {
        int destroyed = 0;
        GPArray local;
        local.addObject(Owned<GPObject>::adopt(new TakesAnotherAlong(local, first)).get());
        for (int index = 0; index < between; ++index)
            local.addObject(Owned<GPObject>::adopt(new TrackedObject(destroyed)).get());
        local.addObject(&first);

        local.removeAllObjects();

        ASSERT_EQ(references(&first), 2) << between;
        EXPECT_EQ(destroyed, between);
        EXPECT_EQ(local.count(), 0);
    }
}

TEST_F(GPArrayTest, AfterRemoveAllObjectsTheSpaceIsFiveAndTheValuesFlagIsClear) {
    {
        GPArray local;
        local.expandArray(40);
        local.addValue(first.retain());
        local.removeAllObjects();
        EXPECT_EQ(local.arraySpace(), 5);
        EXPECT_EQ(references(&first), 1);
        local.addObject(&second);
    }
    // An array of objects again: its destructor released.
    EXPECT_EQ(references(&second), 1);
}

TEST_F(GPArrayTest, SortHandsPointersToTheEntriesToTheComparator) {
    for (const char* text : {"pear", "apple", "zebra", "mango", "fig", "kiwi"}) {
        auto string = Owned<GPString>::adopt(new GPString(text));
        array.addObject(string.get());
    }

    array.sort(byText);

    auto joined = Owned<GPString>::adopt(array.join(" "));
    EXPECT_STREQ(joined->cstr(), "apple fig kiwi mango pear zebra");
}

TEST_F(GPArrayTest, JoinIsThatOfTheStrings) {
    GPString one("a");
    GPString two("b");
    GPString separator("/");
    EXPECT_EQ(array.join(","), nullptr);
    array.addValue(&one);
    array.addValue(&two);

    auto joined = Owned<GPString>::adopt(array.join(&separator));

    EXPECT_STREQ(joined->cstr(), "a/b");
    EXPECT_EQ(references(joined.get()), 1);
}

TEST_F(GPArrayTest, MakersAreAutoreleased) {
    PoolScope pool;
    GPArray* empty = GPArray::array();
    GPArray* one = GPArray::arrayWithObject(&first);
    GPArray* ofNull = GPArray::arrayWithObject(nullptr);

    EXPECT_EQ(references(empty), 2);
    EXPECT_EQ(references(one), 2);
    EXPECT_EQ(one->count(), 1);
    EXPECT_EQ(references(&first), 2);
    EXPECT_EQ(ofNull->count(), 0);
}

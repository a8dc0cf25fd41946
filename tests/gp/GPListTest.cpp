#include "gp/GPList.h"

#include "support/ForkedChild.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <string>

using testsupport::neverEnds;
using testsupport::references;
using testsupport::TrackedObject;

namespace {

// Four objects with one-letter names, so that a list reads as a word.
class GPListTest : public testing::Test {
protected:
    void fill(int count) {
        for (int index = 0; index < count; ++index) {
            list.addObject(&objects[index]);
        }
    }

    std::string nameOf(void* value) const {
        if (!value) return "-";
        for (int index = 0; index < 4; ++index) {
            if (value == &objects[index]) return std::string(1, static_cast<char>('a' + index));
        }
        return "?";
    }

    std::string cursor() { return nameOf(list.currentObject()); }

    std::string forwards() {
        std::string word;
        for (GPObject* object = list.firstObject(); object; object = list.nextObject()) {
            word += nameOf(object);
        }
        return word;
    }

    GPObject objects[4];
    GPObject& a = objects[0];
    GPObject& b = objects[1];
    GPObject& c = objects[2];
    GPObject& d = objects[3];
    GPList list;
};

} // namespace

TEST_F(GPListTest, StartsEmptyWithANullCursor) {
    EXPECT_EQ(list.count(), 0);
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(list.currentObject(), nullptr);
    EXPECT_EQ(list.firstObject(), nullptr);
    EXPECT_EQ(list.nextObject(), nullptr);
    EXPECT_FALSE(list.isSafe());
}

TEST_F(GPListTest, AddObjectRetainsAppendsAndLeavesTheCursorOnTheNewNode) {
    list.addObject(&a);
    EXPECT_EQ(references(&a), 2);
    EXPECT_EQ(cursor(), "a");
    list.addObject(&b);
    EXPECT_EQ(cursor(), "b");

    EXPECT_EQ(forwards(), "ab");
    EXPECT_EQ(list.count(), 2);
    EXPECT_FALSE(list.isEmpty());
}

TEST_F(GPListTest, AddValueTouchesNoCountAndIgnoresNull) {
    list.addValue(nullptr);
    EXPECT_EQ(list.count(), 0);

    list.addValue(&a);

    EXPECT_EQ(references(&a), 1);
    EXPECT_EQ(cursor(), "a");
}

TEST_F(GPListTest, PushOfNullDoesNothing) {
    list.push(nullptr);

    EXPECT_EQ(list.count(), 0);
}

TEST_F(GPListTest, PushAndPopAreFirstInFirstOut) {
    list.push(&a);
    list.push(&b);
    EXPECT_EQ(references(&a), 2);

    EXPECT_EQ(list.pop(), &a);
    EXPECT_EQ(references(&a), 1);
    EXPECT_EQ(cursor(), "b");
    EXPECT_EQ(list.pop(), &b);
    EXPECT_EQ(cursor(), "-");
    EXPECT_EQ(list.pop(), nullptr);
    EXPECT_EQ(references(&b), 1);
}

TEST_F(GPListTest, PopReleasesWhatItAnswers) {
    int destroyed = 0;
    auto* object = new TrackedObject(destroyed);
    list.push(object);
    object->release();

    EXPECT_EQ(list.pop(), object);
    EXPECT_EQ(destroyed, 1);
}

TEST_F(GPListTest, PopOnAnEmptyListIsNullWithTheCursorUnchanged) {
    EXPECT_EQ(list.pop(), nullptr);
    EXPECT_EQ(cursor(), "-");
    EXPECT_EQ(list.count(), 0);
}

TEST_F(GPListTest, IterationGoesByFirstCurrentAndNext) {
    fill(3);

    EXPECT_EQ(list.firstObject(), &a);
    EXPECT_EQ(list.currentObject(), &a);
    EXPECT_EQ(list.nextObject(), &b);
    EXPECT_EQ(list.currentObject(), &b);
    EXPECT_EQ(list.nextObject(), &c);
    EXPECT_EQ(list.nextObject(), nullptr);
    EXPECT_EQ(list.currentObject(), nullptr);
    EXPECT_EQ(list.nextObject(), nullptr);
}

TEST_F(GPListTest, CountLeavesTheCursor) {
    fill(3);
    list.firstObject();
    list.nextObject();

    EXPECT_EQ(list.count(), 3);
    EXPECT_FALSE(list.isEmpty());
    EXPECT_EQ(cursor(), "b");
}

TEST_F(GPListTest, IndexReadsMoveTheCursor) {
    fill(3);

    EXPECT_EQ(list.objectAtIndex(1), &b);
    EXPECT_EQ(cursor(), "b");
    EXPECT_EQ(list.valueAtIndex(2), &c);
    EXPECT_EQ(cursor(), "c");
    EXPECT_EQ(list.valueAtIndex(3), nullptr);
    EXPECT_EQ(cursor(), "-");
    EXPECT_EQ(list.valueAtIndex(-1), nullptr);
    EXPECT_EQ(list.indexOfObject(&b), 1);
    EXPECT_EQ(cursor(), "b");
    EXPECT_EQ(list.indexOfObject(&d), -1);
    EXPECT_EQ(cursor(), "-");
    EXPECT_EQ(list.indexOfObject(nullptr), -1);
}

TEST_F(GPListTest, InsertBehindAPresentAnchorGoesJustBehindIt) {
    fill(2);
    list.insertValue(&a, c.retain());

    EXPECT_EQ(cursor(), "c");
    EXPECT_EQ(forwards(), "acb");
    EXPECT_EQ(references(&c), 2);
}

TEST_F(GPListTest, InsertBehindTheTailIsTheNewTail) {
    fill(2);
    list.insertObject(&b, &c);
    list.addObject(&d);

    EXPECT_EQ(forwards(), "abcd");
    EXPECT_EQ(references(&c), 2);
}

TEST_F(GPListTest, InsertWithAnAbsentOrNullAnchorGoesToTheHead) {
    fill(2);
    list.insertValue(&d, c.retain());
    EXPECT_EQ(forwards(), "cab");

    list.insertObject(nullptr, &d);

    EXPECT_EQ(cursor(), "d");
    EXPECT_EQ(forwards(), "dcab");
    EXPECT_EQ(list.count(), 4);
}

TEST_F(GPListTest, InsertIntoAnEmptyListMakesHeadAndTail) {
    list.insertObject(nullptr, &a);
    EXPECT_EQ(cursor(), "a");
    list.addObject(&b);

    EXPECT_EQ(forwards(), "ab");
}

TEST_F(GPListTest, InsertAtIndexZeroGoesToSecondPlaceAndABadIndexToTheHead) {
    fill(2);
    list.insertObject(0, &c);
    EXPECT_EQ(cursor(), "c");
    EXPECT_EQ(forwards(), "acb");

    list.insertValue(9, d.retain());

    EXPECT_EQ(forwards(), "dacb");
}

TEST_F(GPListTest, InsertOfANullValueIsIgnored) {
    fill(1);
    list.insertValue(&a, nullptr);
    list.insertValue(0, nullptr);

    EXPECT_EQ(list.count(), 1);
}

TEST_F(GPListTest, InsertValueLeavesTheListOneOfObjects) {
    {
        GPList local;
        local.insertValue(nullptr, a.retain());
    }
    EXPECT_EQ(references(&a), 1);
}

TEST_F(GPListTest, RemoveRightAfterFirstTakesItAndLeavesTheCursorOnTheFollowing) {
    fill(3);
    list.firstObject();

    EXPECT_EQ(list.removeValue(&a), &a);

    EXPECT_EQ(cursor(), "b");
    EXPECT_EQ(forwards(), "bc");
    EXPECT_EQ(list.count(), 2);
}

TEST_F(GPListTest, RemoveTakesTheCursorsNodeAheadOfAnEarlierEqualOne) {
    list.addValue(&a);
    list.addValue(&b);
    list.addValue(&a);
    list.addValue(&c);
    list.valueAtIndex(2);

    list.removeValue(&a);

    EXPECT_EQ(cursor(), "c");
    EXPECT_EQ(forwards(), "abc");
}

TEST_F(GPListTest, RemoveOfAnotherThanTheCursorsWalksFromTheHead) {
    fill(4);
    list.firstObject();

    EXPECT_EQ(list.removeValue(&c), &c);

    EXPECT_EQ(cursor(), "d");
    EXPECT_EQ(forwards(), "abd");
}

TEST_F(GPListTest, RemoveOfTheTailLeavesANullCursor) {
    fill(2);

    list.removeValue(&b);
    b.release();
    EXPECT_EQ(cursor(), "-");

    list.addObject(&c);
    EXPECT_EQ(forwards(), "ac");
}

TEST_F(GPListTest, RemoveOfAnAbsentValueIsNullWithANullCursor) {
    fill(2);

    EXPECT_EQ(list.removeValue(&d), nullptr);
    EXPECT_EQ(cursor(), "-");
    EXPECT_EQ(list.removeValue(nullptr), nullptr);
    EXPECT_EQ(list.count(), 2);
}

TEST_F(GPListTest, RemoveWithANullCursorReadsNothingThere) {
    EXPECT_EQ(list.removeValue(&a), nullptr);
    fill(2);
    forwards();
    ASSERT_EQ(cursor(), "-");

    EXPECT_EQ(list.removeValue(&d), nullptr);
    EXPECT_EQ(list.removeObject(&a), &a);

    EXPECT_EQ(forwards(), "b");
    EXPECT_EQ(references(&a), 1);
}

TEST_F(GPListTest, RemoveObjectReleasesEvenWhatIsNotThere) {
    fill(2);
    c.retain();

    EXPECT_EQ(list.removeObject(&c), &c);
    EXPECT_EQ(references(&c), 1);
    list.firstObject();
    EXPECT_EQ(list.removeObject(&b), &b);
    EXPECT_EQ(references(&b), 1);
    EXPECT_EQ(forwards(), "a");
}

TEST_F(GPListTest, RemoveAtIndexRemovesThatNode) {
    fill(4);

    EXPECT_EQ(list.removeObjectAtIndex(1), &b);
    EXPECT_EQ(references(&b), 1);
    EXPECT_EQ(cursor(), "c");
    EXPECT_EQ(list.removeValueAtIndex(0), &a);
    EXPECT_EQ(references(&a), 2);
    a.release();
    EXPECT_EQ(list.removeValueAtIndex(9), nullptr);
    EXPECT_EQ(forwards(), "cd");
}

TEST_F(GPListTest, CursorReturnsToTheNodeOfAPlaceAndNotToAnEqualOneInFront) {
    fill(2);
    list.addObject(&a);
    GPList::Node* const last = list.place();
    list.addObject(&c);
    list.firstObject();

    list.moveTo(last);

    EXPECT_EQ(cursor(), "a");
    list.removeObject(&a);
    EXPECT_EQ(cursor(), "c");
    EXPECT_EQ(forwards(), "abc");
    EXPECT_EQ(list.place(), nullptr);
}

TEST_F(GPListTest, WalkThatRemovesAndStillStepsOnSkipsTheNextElement) {
    fill(4);
    std::string seen;
    for (list.firstObject(); list.currentObject(); list.nextObject()) {
        seen += cursor();
        if (cursor() == "b") list.removeObject(&b);
    }

    EXPECT_EQ(seen, "abd");
}

TEST_F(GPListTest, AnEmptyListsCursorHasAPlaceToo) {
    GPList::Node* const nowhere = list.place();
    fill(1);

    list.moveTo(nowhere);

    EXPECT_EQ(cursor(), "-");
}

TEST_F(GPListTest, DestructorReleasesObjectsButNotValues) {
    {
        GPList objectsOnly;
        objectsOnly.addObject(&a);
        GPList mixed;
        mixed.addObject(&b);
        mixed.addValue(&c);
    }
    EXPECT_EQ(references(&a), 1);
    EXPECT_EQ(references(&b), 2);
    EXPECT_EQ(references(&c), 1);
}

TEST_F(GPListTest, SafeListDoesAllThatAPlainOneDoes) {
    list.safe();
    list.safe();
    EXPECT_TRUE(list.isSafe());
    fill(3);
    list.insertObject(0, &d);
    list.indexOfObject(&b);
    list.removeObject(&b);
    list.removeObjectAtIndex(0);
    EXPECT_EQ(list.pop(), &d);

    EXPECT_EQ(forwards(), "c");
    EXPECT_EQ(references(&d), 1);
}

TEST_F(GPListTest, OperationsOfASafeListWaitForItsLock) {
    list.safe();
    fill(1);

    EXPECT_TRUE(neverEnds([this] {
        list.lock();
        list.firstObject();
    }));
    list.lock();
    list.unlock();
    EXPECT_EQ(list.firstObject(), &a);
}

TEST_F(GPListTest, CountTestOfPopTakesNoLock) {
    list.safe();
    list.lock();

    EXPECT_EQ(list.pop(), nullptr);
    list.unlock();
}

TEST_F(GPListTest, AnObjectThatWasInsertedGoesOutAgainFromItsPlace) {
    fill(3);
    list.insertObject(&a, &d); // in the middle
    list.removeObject(&d);
    EXPECT_EQ(forwards(), "abc");
    list.insertObject(nullptr, &d); // in front
    list.removeObject(&d);
    EXPECT_EQ(forwards(), "abc");
    list.insertObject(&c, &d); // behind the last
    list.removeObject(&d);
    EXPECT_EQ(forwards(), "abc");
}

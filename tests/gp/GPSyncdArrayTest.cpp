#include "gp/GPSyncdArray.h"

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using testsupport::references;
using testsupport::TrackedObject;

namespace {

// The array under test lives for the whole run, as all of its kind do, and so do its retired arrays.
class GPSyncdArrayTest : public testing::Test {
protected:
    GPSyncdArrayTest()
        : array(*kept(new GPSyncdArray(2))), a(*kept(new GPObject())), b(*kept(new GPObject())),
          c(*kept(new GPObject())) {}

    // Keeps in sight what lives for the whole run.
    template <class T>
    static T* kept(T* object) {
        static auto& forEver = *new std::vector<GPObject*>();
        forEver.push_back(object);
        return object;
    }

    Owned<GPArray> snapshot() { return Owned<GPArray>::adopt(array.getArray()); }

    bool addText(const char* text) {
        auto string = Owned<GPString>::adopt(new GPString(text));
        return array.addString(string.get());
    }

    bool removeText(const char* text) {
        GPString string(text);
        return array.removeString(&string);
    }

    std::string content() {
        auto joined = Owned<GPString>::adopt(GPString::join(array.getInternalArray(), ","));
        return joined ? joined->cstr() : "";
    }

    GPSyncdArray& array;
    GPObject& a;
    GPObject& b;
    GPObject& c;
};

} // namespace

TEST_F(GPSyncdArrayTest, StartsWithCountTwoAroundAnArrayOfCountTwo) {
    EXPECT_EQ(references(&array), 2);
    EXPECT_EQ(references(array.getInternalArray()), 2);
    EXPECT_EQ(array.getInternalArray()->count(), 0);
}

TEST_F(GPSyncdArrayTest, SingleReleaseDoesNotDestroyIt) {
    EXPECT_EQ(array.release(), 1);
    EXPECT_EQ(array.getInternalArray()->count(), 0);
}

TEST_F(GPSyncdArrayTest, InitialCapacityIsTheOneAskedForOrFive) {
    EXPECT_EQ(array.getInternalArray()->arraySpace(), 2);
    EXPECT_EQ(kept(new GPSyncdArray())->getInternalArray()->arraySpace(), 5);
    EXPECT_EQ(kept(new GPSyncdArray(0))->getInternalArray()->arraySpace(), 5);
    EXPECT_EQ(kept(new GPSyncdArray(1))->getInternalArray()->arraySpace(), 1);
}

TEST_F(GPSyncdArrayTest, GetArrayAnswersTheCurrentArrayWithOneMoreReference) {
    GPArray* snapshotArray = array.getArray();

    EXPECT_EQ(snapshotArray, array.getInternalArray());
    EXPECT_EQ(references(snapshotArray), 3);
    EXPECT_EQ(snapshotArray->release(), 2);
}

TEST_F(GPSyncdArrayTest, GetArrayOfAnArrayOnItsWayOutWarnsAndRetainsTwice) {
    testsupport::CapturedLog log;
    GPArray* current = array.getInternalArray();
    current->releaseonly();
    current->releaseonly();
    EXPECT_EQ(references(current), GPObject::lastReferenceGone);

    EXPECT_EQ(array.getArray(), current);

    EXPECT_EQ(references(current), -97);
    EXPECT_TRUE(log.holds("!!!warning in SyncArray!!!"));
}

TEST_F(GPSyncdArrayTest, AddWithRoomGoesInPlaceAndIsSeenByAnExistingSnapshot) {
    auto before = snapshot();
    EXPECT_EQ(before->count(), 0);

    EXPECT_TRUE(array.addObject(&a));

    EXPECT_EQ(before->count(), 1);
    EXPECT_EQ(before->objectAtIndex(0), &a);
    EXPECT_EQ(array.getInternalArray(), before.get());
    EXPECT_EQ(references(&a), 2);
    EXPECT_EQ(references(before.get()), 3);
}

TEST_F(GPSyncdArrayTest, AddToAFullArrayMakesANewOneAndASnapshotKeepsTheOldCount) {
    array.addObject(&a);
    array.addObject(&b);
    auto before = snapshot();

    EXPECT_TRUE(array.addObject(&c));

    GPArray* current = array.getInternalArray();
    EXPECT_NE(current, before.get());
    EXPECT_EQ(before->count(), 2);
    EXPECT_EQ(current->count(), 3);
    EXPECT_EQ(current->arraySpace(), 4);
    EXPECT_EQ(references(current), 2);
    // The snapshot's reference and the one that a retired array keeps for ever.
    EXPECT_EQ(references(before.get()), 2);
    EXPECT_EQ(references(&a), 3);
    EXPECT_EQ(references(&c), 2);
}

TEST_F(GPSyncdArrayTest, RetiredArrayFallsToOneAndStaysThere) {
    array.addObject(&a);
    array.addObject(&b);
    GPArray* retired = array.getInternalArray();

    array.addObject(&c);
    EXPECT_EQ(references(retired), 1);

    EXPECT_EQ(retired->count(), 2);
    EXPECT_EQ(retired->objectAtIndex(1), &b);
}

TEST_F(GPSyncdArrayTest, RemoveObjectBuildsANewArray) {
    array.addObject(&a);
    array.addObject(&b);
    auto before = snapshot();

    EXPECT_TRUE(array.removeObject(&a));

    GPArray* current = array.getInternalArray();
    EXPECT_NE(current, before.get());
    EXPECT_EQ(current->count(), 1);
    EXPECT_EQ(current->objectAtIndex(0), &b);
    EXPECT_EQ(references(current), 2);
    EXPECT_EQ(before->count(), 2);
    EXPECT_EQ(references(before.get()), 2);
    EXPECT_EQ(references(&a), 2);
    EXPECT_EQ(references(&b), 3);
}

TEST_F(GPSyncdArrayTest, RemoveFromAFullArrayDoublesTheCapacityAllTheSame) {
    array.addObject(&a);
    array.addObject(&b);

    array.removeObject(&b);

    EXPECT_EQ(array.getInternalArray()->arraySpace(), 4);
}

TEST_F(GPSyncdArrayTest, RemoveOfAnAbsentObjectKeepsTheArray) {
    array.addObject(&a);
    GPArray* before = array.getInternalArray();

    EXPECT_FALSE(array.removeObject(&b));
    EXPECT_FALSE(array.removeObject(nullptr));

    EXPECT_EQ(array.getInternalArray(), before);
    EXPECT_EQ(references(before), 2);
    EXPECT_EQ(references(&b), 1);
}

TEST_F(GPSyncdArrayTest, SnapshotFromBeforeRemoveAllStillHoldsItsLiveElements) {
    int destroyed = 0;
    auto* element = new TrackedObject(destroyed);
    array.addObject(element);
    element->release();
    auto before = snapshot();

    array.removeAll();

    EXPECT_EQ(array.getInternalArray()->count(), 0);
    EXPECT_EQ(array.getInternalArray()->arraySpace(), 2);
    EXPECT_EQ(references(array.getInternalArray()), 2);
    EXPECT_EQ(before->count(), 1);
    EXPECT_EQ(before->objectAtIndex(0), element);
    EXPECT_EQ(references(before.get()), 2);
    before = Owned<GPArray>();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(references(element), 1);
}

TEST_F(GPSyncdArrayTest, RemoveAllOnAnEmptyArrayKeepsTheSameArray) {
    GPArray* before = array.getInternalArray();

    array.removeAll();

    EXPECT_EQ(array.getInternalArray(), before);
    EXPECT_EQ(references(before), 2);
}

TEST_F(GPSyncdArrayTest, CloneCopiesAllButTheSkippedEntry) {
    array.addObject(&a);
    array.addObject(&b);
    GPArray* whole = array.clone(array.getInternalArray(), -1);
    GPArray* withoutFirst = array.clone(array.getInternalArray(), 0);

    EXPECT_EQ(references(whole), 2);
    EXPECT_EQ(whole->count(), 2);
    EXPECT_EQ(whole->arraySpace(), 4);
    EXPECT_EQ(references(withoutFirst), 2);
    EXPECT_EQ(withoutFirst->count(), 1);
    EXPECT_EQ(withoutFirst->objectAtIndex(0), &b);
    EXPECT_EQ(references(&a), 3);
    GPArray withRoom(7);
    GPArray* copy = array.clone(&withRoom, -1);
    EXPECT_EQ(copy->arraySpace(), 7);
}

TEST_F(GPSyncdArrayTest, PlainAndGuardedReferencesOfACloneAreOneCount) {
    array.addObject(&a);
    array.addObject(&b);
    GPArray* clone = array.clone(array.getInternalArray(), -1);

    EXPECT_EQ(clone->safeRetain(), 3);
    EXPECT_EQ(clone->release(), 2);
    EXPECT_EQ(clone->release(), 1);
    EXPECT_EQ(references(&a), 3);
    clone->release();
    EXPECT_EQ(references(&a), 2);
}

TEST_F(GPSyncdArrayTest, AddStringRefusesNullEmptyAndKnownText) {
    GPString empty;

    EXPECT_FALSE(array.addString(nullptr));
    EXPECT_FALSE(array.addString(&empty));
    EXPECT_TRUE(addText("one"));
    EXPECT_FALSE(addText("one"));
    EXPECT_TRUE(addText("two"));
    EXPECT_TRUE(addText("three"));
    EXPECT_EQ(content(), "one,two,three");
    EXPECT_EQ(references(array.getInternalArray()), 2);
}

TEST_F(GPSyncdArrayTest, AddStringRetains) {
    auto string = Owned<GPString>::adopt(new GPString("one"));
    array.addString(string.get());

    EXPECT_EQ(references(string.get()), 2);
    array.addString(string.get());
    EXPECT_EQ(references(string.get()), 2);
}

TEST_F(GPSyncdArrayTest, RemoveStringGoesByText) {
    addText("one");
    addText("two");
    GPString empty;

    EXPECT_FALSE(array.removeString(nullptr));
    EXPECT_FALSE(array.removeString(&empty));
    EXPECT_FALSE(removeText("three"));
    EXPECT_TRUE(removeText("one"));
    EXPECT_FALSE(removeText("one"));
    EXPECT_EQ(content(), "two");
}

TEST_F(GPSyncdArrayTest, FindStringObjectAnswersTheStringWithThatText) {
    addText("one");
    addText("two");
    auto* found = static_cast<GPString*>(array.findStringObject("one"));

    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->cstr(), "one");
    EXPECT_EQ(references(found), 1);
    EXPECT_EQ(array.findStringObject("three"), nullptr);
    EXPECT_EQ(array.findStringObject(nullptr), nullptr);
    EXPECT_EQ(references(array.getInternalArray()), 2);
}

TEST_F(GPSyncdArrayTest, FindStringObjectInAnEmptyArrayIsNull) {
    EXPECT_EQ(array.findStringObject("one"), nullptr);
}

TEST_F(GPSyncdArrayTest, FindStringObjectAnswersAFinalElementThatIsNoString) {
    addText("one");
    array.addObject(&a);

    EXPECT_EQ(array.findStringObject("three"), &a);
    EXPECT_NE(array.findStringObject("one"), &a);
    addText("two");
    EXPECT_EQ(array.findStringObject("three"), nullptr);
}

TEST_F(GPSyncdArrayTest, FindStringObjectIndexStepsOverWhatIsNoString) {
    array.addObject(&a);
    addText("one");

    EXPECT_EQ(array.findStringObjectIndex(array.getInternalArray(), "one"), 1);
    EXPECT_EQ(array.findStringObjectIndex(array.getInternalArray(), "two"), -1);
}

TEST_F(GPSyncdArrayTest, DestructorReleasesTheCurrentArrayOnceWhichLeavesItAlive) {
    array.addObject(&a);
    GPArray* current = array.getInternalArray();
    array.release();
    array.release();

    EXPECT_EQ(references(current), 1);
    EXPECT_EQ(current->objectAtIndex(0), &a);
}

TEST_F(GPSyncdArrayTest, ReadersBesideWritersSeeWholeArraysOnly) {
    constexpr int rounds = 300;
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int index = 0; index < 2; ++index) {
        readers.emplace_back([&] {
            while (!done.load()) {
                GPArray* seen = array.getArray();
                const int count = seen->count();
                for (int at = 0; at < count; ++at) {
                    GPObject* element = seen->objectAtIndex(at);
                    if (!element || !element->isInstanceOf("GPString")) ++torn;
                }
                seen->release();
                array.findStringObject("text7");
            }
        });
    }
    // Counts are plain: nobody but the writers may touch those of the elements meanwhile.
    std::vector<GPString*> texts;
    for (int number = 0; number < 20; ++number) {
        texts.push_back(kept(new GPString(("text" + std::to_string(number)).c_str())));
    }
    std::vector<std::thread> writers;
    for (int index = 0; index < 2; ++index) {
        writers.emplace_back([this, index, &texts] {
            for (int round = 0; round < rounds; ++round) {
                GPString* text = texts[static_cast<std::size_t>(round % 10 + 10 * index)];
                array.addString(text);
                if (round % 3 == 0) array.removeString(text);
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }

    EXPECT_EQ(torn, 0);
    EXPECT_EQ(references(array.getInternalArray()), 2);
}

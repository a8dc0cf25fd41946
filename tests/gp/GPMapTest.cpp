#include "gp/GPMap.h"

#include "gp/GPPair.h"
#include "gp/GPString.h"
#include "support/CapturedLog.h"
#include "support/ForkedChild.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

using testsupport::neverEnds;
using testsupport::references;
using testsupport::TrackedObject;

namespace {

using Keys = std::vector<std::string>;

Keys walk(GPMap& map) {
    Keys keys;
    for (const char* key = map.firstKey(); key; key = map.nextKey()) {
        keys.emplace_back(key);
    }
    return keys;
}

void fill(GPMap& map, std::initializer_list<const char*> keys) {
    for (const char* key : keys) {
        map.setObject(new GPString(key), key);
    }
}

bool holdsEach(GPMap& map, const Keys& keys) {
    for (const std::string& key : keys) {
        auto* value = static_cast<GPString*>(map.objectForKey(key.c_str()));
        if (!value || !value->isEqual(key.c_str())) return false;
    }
    return true;
}

} // namespace

TEST(GPMap, StartsEmpty) {
    GPMap map;

    EXPECT_EQ(map.count(), 0);
    EXPECT_EQ(map.objectForKey("a"), nullptr);
    EXPECT_EQ(map.objectForKey(nullptr), nullptr);
    EXPECT_FALSE(map.isSafe());
    EXPECT_STREQ(GPMap::GPMapClassName(), "GPMap");
}

TEST(GPMap, SetObjectTakesTheCallersReferenceOver) {
    int destroyed = 0;
    {
        GPMap map;
        auto* value = new TrackedObject(destroyed);
        map.setObject(value, "key");
        EXPECT_EQ(references(value), 1);
        EXPECT_EQ(map.count(), 1);

        EXPECT_EQ(map.objectForKey("key"), value);
        EXPECT_EQ(references(value), 1);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(GPMap, SetNewObjectTakesTheReferenceOverAndLooksForNoEarlierEntry) {
    int destroyed = 0;
    {
        GPMap map(1);
        fill(map, {"b"});
        map.setNewObject(new TrackedObject(destroyed), "a");
        EXPECT_EQ(walk(map), (Keys{"b", "a"}));
        EXPECT_EQ(map.count(), 2);

        map.setNewObject(new GPString("b"), "b");
        EXPECT_EQ(walk(map), (Keys{"b", "a", "b"})) << "a key that is not new stands there twice";
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(GPMap, SetObjectOfNullsDoesNothing) {
    GPMap map;
    GPObject value;
    map.setObject(nullptr, "key");
    map.setObject(&value, nullptr);

    EXPECT_EQ(map.count(), 0);
    EXPECT_EQ(references(&value), 1);
}

TEST(GPMap, SetObjectWithAnExistingKeyReleasesTheOldValueAndKeepsTheCount) {
    int oldDestroyed = 0;
    int newDestroyed = 0;
    GPMap map;
    map.setObject(new TrackedObject(oldDestroyed), "key");
    auto* fresh = new TrackedObject(newDestroyed);

    map.setObject(fresh, "key");

    EXPECT_EQ(oldDestroyed, 1);
    EXPECT_EQ(newDestroyed, 0);
    EXPECT_EQ(map.count(), 1);
    EXPECT_EQ(map.objectForKey("key"), fresh);
}

TEST(GPMap, SetObjectUnderTheTextOfTheVeryPairThatGoesIsSafe) {
    GPMap map;
    fill(map, {"key"});

    map.setObject(new GPString("fresh"), map.firstKey());

    EXPECT_EQ(walk(map), Keys{"key"});
    EXPECT_TRUE(static_cast<GPString*>(map.objectForKey("key"))->isEqual("fresh"));
}

TEST(GPMap, KeysAreCopiedAndComparedExactly) {
    GPMap map;
    char key[] = "Key";
    map.setObject(new GPString("v"), key);
    std::strcpy(key, "xxx");

    EXPECT_NE(map.objectForKey("Key"), nullptr);
    EXPECT_EQ(map.objectForKey("key"), nullptr);
    EXPECT_EQ(map.objectForKey("xxx"), nullptr);
    EXPECT_EQ(map.objectForKey("Ke"), nullptr);
}

TEST(GPMap, EmptyKeyIsAKey) {
    GPMap map;
    fill(map, {"", "a"});

    EXPECT_TRUE(holdsEach(map, {"", "a"}));
}

TEST(GPMap, RemoveReleasesTheValue) {
    int destroyed = 0;
    GPMap map;
    map.setObject(new TrackedObject(destroyed), "key");

    map.removeObjectForKey("key");

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(map.count(), 0);
    EXPECT_EQ(map.objectForKey("key"), nullptr);
}

TEST(GPMap, RemoveOfAnAbsentKeyOrFromAnEmptyMapDoesNothing) {
    GPMap map;
    map.removeObjectForKey("key");
    fill(map, {"key"});
    map.removeObjectForKey("other");
    map.removeObjectForKey(nullptr);

    EXPECT_EQ(map.count(), 1);
}

TEST(GPMap, ValueThatWasRetainedOutlivesTheMap) {
    GPObject value;
    {
        GPMap map;
        map.setObject(value.retain(), "key");
    }
    EXPECT_EQ(references(&value), 1);
}

// With 10 buckets the hash starts at 5: one byte c goes to bucket (505 + c) modulo 10.
TEST(GPMap, WalkGoesByBucketAndThenByInsertion) {
    GPMap map;
    fill(map, {"k", "e", "a", "f", "b", "c"});

    // 'a' is 97: bucket 2; 'k' is 107: bucket 2; 'b' 3; 'c' 4; 'e' 6; 'f' 7.
    EXPECT_EQ(walk(map), (Keys{"k", "a", "b", "c", "e", "f"}));
}

// With 7 buckets the hash starts at 3: "aa" to "ad" are 40497 to 40500, buckets 2 to 5. The 8 letters z wrap to
// 3618577107, bucket 5; without the wrap-around it would be bucket 4.
TEST(GPMap, HashGoesOverAllBytesWithWrapAround) {
    GPMap map(7);
    fill(map, {"zzzzzzzz", "ad", "ac", "ab", "aa"});

    EXPECT_EQ(walk(map), (Keys{"aa", "ab", "ac", "zzzzzzzz", "ad"}));
}

// A byte of 0xE4 counts as -28: in 10 buckets (505 - 28) modulo 10 is 7; as 228 it would be bucket 3.
TEST(GPMap, KeyBytesAbove127HashAsNegativeValues) {
    GPMap map;
    fill(map, {"\xE4", "d", "g"});

    // 'd' is in bucket 5, 'g' in bucket 8.
    EXPECT_EQ(walk(map), (Keys{"d", "\xE4", "g"}));
    EXPECT_TRUE(holdsEach(map, {"\xE4", "d", "g"}));
}

// With 3 buckets the hash starts at 1: a byte of 0x80 gives 101 - 128 = -27, as unsigned 4294967269, bucket 1.
TEST(GPMap, NegativeSumHashesAsAnUnsignedNumber) {
    GPMap map(3);
    fill(map, {"\x80", "b", "a"});

    // 'a' is 198, bucket 0; 'b' is 199, bucket 1, behind the other.
    EXPECT_EQ(walk(map), (Keys{"a", "\x80", "b"}));
}

TEST(GPMap, FirstKeyOnAnEmptyMapIsNullAndDoesNotTouchTheWalk) {
    GPMap map(1);
    fill(map, {"a", "b", "c"});
    map.firstKey();
    map.nextKey();
    for (const char* key : {"a", "b", "c"}) {
        map.removeObjectForKey(key);
    }
    EXPECT_EQ(map.firstKey(), nullptr);

    // The walk still stands behind two keys.
    fill(map, {"x", "y", "z"});
    EXPECT_STREQ(map.nextKey(), "z");
    EXPECT_EQ(map.nextKey(), nullptr);
}

TEST(GPMap, NextKeyWithoutAFirstOneBeginsTheWalk) {
    GPMap map(1);
    fill(map, {"a", "b"});
    EXPECT_STREQ(map.nextKey(), "a");
    EXPECT_STREQ(map.nextKey(), "b");
}

TEST(GPMap, NextKeyBehindTheEndStaysNull) {
    GPMap map;
    fill(map, {"a"});
    EXPECT_STREQ(map.firstKey(), "a");

    EXPECT_EQ(map.nextKey(), nullptr);
    EXPECT_EQ(map.nextKey(), nullptr);
    EXPECT_STREQ(map.firstKey(), "a");
}

TEST(GPMap, RemovalDuringAWalkSkipsAKeyOfTheChain) {
    GPMap map(1);
    fill(map, {"a", "b", "c"});
    EXPECT_STREQ(map.firstKey(), "a");

    map.removeObjectForKey("a");

    EXPECT_STREQ(map.nextKey(), "c");
}

TEST(GPMap, OneBucketIsASingleChainInOrderOfInsertion) {
    GPMap map(1);
    fill(map, {"z", "a", "m", "b"});
    EXPECT_EQ(walk(map), (Keys{"z", "a", "m", "b"}));

    map.setObject(new GPString("again"), "a");
    map.removeObjectForKey("z");

    EXPECT_EQ(walk(map), (Keys{"m", "b", "a"}));
    EXPECT_EQ(map.count(), 3);
}

TEST(GPMap, ManyKeysStayInTheBucketsTheMapWasBuiltWith) {
    GPMap map(3);
    Keys keys;
    for (int index = 0; index < 300; ++index) {
        keys.push_back("key" + std::to_string(index));
        map.setObject(new GPString(keys.back().c_str()), keys.back().c_str());
    }

    EXPECT_EQ(map.count(), 300);
    EXPECT_TRUE(holdsEach(map, keys));
    EXPECT_EQ(walk(map).size(), 300u);
    for (const std::string& key : keys) {
        map.removeObjectForKey(key.c_str());
    }
    EXPECT_EQ(map.count(), 0);
    EXPECT_TRUE(walk(map).empty());
}

TEST(GPMap, RebalanceLogsAndLeavesOnlyTheLookupsWorking) {
    testsupport::CapturedLog log;
    GPMap map(2);
    fill(map, {"a", "b", "c", "d", "e"});

    map.rebalance();

    EXPECT_TRUE(log.holds("GPMap::rebalance entry"));
    EXPECT_EQ(map.count(), 0);
    EXPECT_EQ(map.firstKey(), nullptr);
    EXPECT_TRUE(holdsEach(map, {"a", "b", "c", "d", "e"}));
    map.removeObjectForKey("a");
    EXPECT_NE(map.objectForKey("a"), nullptr);
}

TEST(GPMap, RebalancedMapReleasesEachValueOnceAtItsEnd) {
    testsupport::CapturedLog log;
    int destroyed = 0;
    {
        GPMap map(2);
        map.setObject(new TrackedObject(destroyed), "a");
        map.setObject(new TrackedObject(destroyed), "b");
        map.rebalance();
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 2);
}

TEST(GPMap, TwiceRebalancedMapReleasesEachValueOnceAtItsEnd) {
    testsupport::CapturedLog log;
    int destroyed = 0;
    {
        GPMap map(1);
        map.setObject(new TrackedObject(destroyed), "a");
        map.setObject(new TrackedObject(destroyed), "b");
        map.rebalance();
        map.rebalance();
        EXPECT_NE(map.objectForKey("a"), nullptr);
        EXPECT_NE(map.objectForKey("b"), nullptr);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 2);
}

TEST(GPMap, PairThatStandsInTwoListsAfterTwoRebalancesOutlivesItsRemovalFromOne) {
    testsupport::CapturedLog log;
    int destroyed = 0;
    {
        GPMap map(1);
        map.setObject(new TrackedObject(destroyed), "a");
        map.rebalance();
        map.rebalance();
        fill(map, {"b"});

        map.removeObjectForKey("a");

        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(GPMap, PairOfARebalancedMapCanBeRemovedOnceSomethingCountsAgain) {
    testsupport::CapturedLog log;
    int destroyed = 0;
    GPMap map(2);
    map.setObject(new TrackedObject(destroyed), "a");
    map.rebalance();
    fill(map, {"b"});

    map.removeObjectForKey("a");

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(map.count(), 0);
    EXPECT_NE(map.objectForKey("b"), nullptr);
}

TEST(GPMap, RebalanceDoublesTheBuckets) {
    testsupport::CapturedLog log;
    GPMap map(1);
    // In two buckets the hash starts at 1: 'a' (198) goes to bucket 0, 'b' (199) to bucket 1.
    fill(map, {"b", "a"});
    map.rebalance();
    fill(map, {"c"});

    EXPECT_EQ(walk(map), (Keys{"a", "c", "b"})) << "'c' is 200, bucket 0";
}

TEST(GPMap, SafeMapDoesAllThatAPlainOneDoes) {
    testsupport::CapturedLog log;
    GPMap map;
    map.safe();
    map.safe();
    EXPECT_TRUE(map.isSafe());
    fill(map, {"a", "b", "a"});
    EXPECT_EQ(walk(map), (Keys{"a", "b"}));
    map.removeObjectForKey("a");
    EXPECT_EQ(map.count(), 1);
    map.rebalance();

    EXPECT_NE(map.objectForKey("b"), nullptr);
}

TEST(GPMap, OperationsOfASafeMapWaitForItsLock) {
    GPMap map;
    map.lock();
    map.lock();
    map.unlock();
    map.safe();

    EXPECT_TRUE(neverEnds([&map] {
        map.lock();
        map.objectForKey("a");
    }));
}

TEST(GPPair, CopiesItsKeyAndReleasesItsValue) {
    GPObject value;
    std::string key = "key of several";
    auto* pair = GPPair::of(std::string_view(key).substr(0, 3), value.retain());
    key.clear();
    EXPECT_STREQ(pair->key(), "key");
    EXPECT_EQ(pair->value(), &value);
    EXPECT_EQ(references(&value), 2);

    pair->release();

    EXPECT_EQ(references(&value), 1);
}

TEST(GPPair, GivesTheMapsReferenceBackOnce) {
    GPObject value;
    auto* pair = GPPair::of("key", value.retain());
    pair->retain();

    pair->releaseMapReference();
    pair->releaseMapReference();

    EXPECT_EQ(references(pair), 1);
    pair->release();
    EXPECT_EQ(references(&value), 1);
}

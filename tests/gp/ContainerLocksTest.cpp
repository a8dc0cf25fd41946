// What each operation of a safe() container does with its lock: how often it takes it, that nothing is changed before
// it has it, and that everything is done when it gives it back.

#include "gp/GPArray.h"
#include "gp/GPList.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "support/AllocationCounter.h"
#include "support/LockCounter.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

template <class Container>
struct Operation {
    const char* name;
    int locks;
    std::function<void(Container&)> run;
};

// What the container holds, read with its lock free and left as it was.
template <class Container>
using Look = std::string (*)(Container&);

template <class Container>
void check(Container& container, const Operation<Container>& operation, Look<Container> look) {
    SCOPED_TRACE(operation.name);
    const std::string before = look(container);
    std::vector<std::string> atLocks;
    std::string atUnlock;
    const auto lookInside = [&] {
        container.unlock();
        std::string found = look(container);
        container.lock();
        return found;
    };
    {
        testsupport::LockCounter locks;
        locks.behindEachLock([&] { atLocks.push_back(lookInside()); });
        locks.beforeEachUnlock([&] { atUnlock = lookInside(); });
        operation.run(container);
        EXPECT_EQ(locks.count(), operation.locks);
        EXPECT_EQ(locks.held(), 0);
    }
    if (atLocks.empty()) return;
    EXPECT_EQ(atLocks.front(), before) << "changed before the lock was taken";
    EXPECT_EQ(atUnlock, look(container)) << "changed behind the lock";
}

GPObject first;
GPObject second;
GPObject absent;

std::string letterOf(const void* entry) {
    if (!entry) return "-";
    return entry == &first ? "1" : entry == &second ? "2" : "?";
}

std::string contentOfArray(GPArray& array) {
    std::string text;
    for (int index = 0; array.valueAtIndex(index); ++index)
        text += letterOf(array.valueAtIndex(index));
    return text + "/" + std::to_string(array.arraySpace());
}

std::string contentOfList(GPList& list) {
    GPList::Node* const cursor = list.place();
    std::string text = "cursor " + letterOf(list.currentObject()) + " ";
    for (GPObject* object = list.firstObject(); object; object = list.nextObject())
        text += letterOf(object);
    list.moveTo(cursor);
    return text + "/" + std::to_string(list.count());
}

std::string contentOfMap(GPMap& map) {
    std::string text;
    for (const char* key : {"first", "second"})
        text += letterOf(map.objectForKey(key));
    return text + "/" + std::to_string(map.count());
}

class ContainerLocks : public testing::Test {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock functions";
    }
};

} // namespace

TEST_F(ContainerLocks, EachOperationOfASafeArray) {
    using Array = GPArray;
    static const auto compare = [](const void*, const void*) { return 0; };
    const std::vector<Operation<Array>> operations = {
        {"addObject", 1, [](Array& array) { array.addObject(&second); }},
        {"addObject of null", 0, [](Array& array) { array.addObject(nullptr); }},
        {"addValue", 1, [](Array& array) { array.addValue(&second); }},
        {"addValue of null", 0, [](Array& array) { array.addValue(nullptr); }},
        {"removeObject", 1,
         [](Array& array) { array.removeObject(static_cast<GPObject*>(absent.retain())); }},
        {"removeValue", 1, [](Array& array) { array.removeValue(&absent); }},
        {"removeObjectAtIndex", 0, [](Array& array) { array.removeObjectAtIndex(7); }},
        {"removeValueAtIndex", 1, [](Array& array) { array.removeValueAtIndex(7); }},
        {"removeAllObjects", 1, [](Array& array) { array.removeAllObjects(); }},
        {"objectAtIndex", 1, [](Array& array) { array.objectAtIndex(0); }},
        {"valueAtIndex", 0, [](Array& array) { array.valueAtIndex(0); }},
        {"indexOfObject", 0, [](Array& array) { array.indexOfObject(&first); }},
        {"indexOfValue", 0, [](Array& array) { array.indexOfValue(&first); }},
        {"count", 1, [](Array& array) { array.count(); }},
        {"arraySpace", 1, [](Array& array) { array.arraySpace(); }},
        {"expandArray", 0, [](Array& array) { array.expandArray(9); }},
        {"sort", 1, [](Array& array) { array.sort(compare); }},
        {"safe", 0, [](Array& array) { array.safe(); }},
        {"isSafe", 0, [](Array& array) { array.isSafe(); }},
    };
    for (const auto& operation : operations) {
        Array array(2);
        array.addObject(&first);
        array.safe();
        check<Array>(array, operation, contentOfArray);
    }
}

TEST_F(ContainerLocks, EachOperationOfASafeList) {
    using List = GPList;
    const std::vector<Operation<List>> operations = {
        {"addObject", 1, [](List& list) { list.addObject(&second); }},
        {"addValue", 1, [](List& list) { list.addValue(second.retain()); }},
        {"push", 1, [](List& list) { list.push(&second); }},
        {"push of null", 0, [](List& list) { list.push(nullptr); }},
        {"pop", 1, [](List& list) { list.pop(); }},
        {"insertObject", 1, [](List& list) { list.insertObject(&first, &second); }},
        {"insertValue", 1, [](List& list) { list.insertValue(&first, second.retain()); }},
        {"insertValue of null", 0, [](List& list) { list.insertValue(&first, nullptr); }},
        {"insertObject at an index", 2, [](List& list) { list.insertObject(0, &second); }},
        {"insertValue at an index", 2, [](List& list) { list.insertValue(0, second.retain()); }},
        {"valueAtIndex", 1, [](List& list) { list.valueAtIndex(0); }},
        {"objectAtIndex", 1, [](List& list) { list.objectAtIndex(0); }},
        {"indexOfObject", 1, [](List& list) { list.indexOfObject(&first); }},
        {"removeObject", 1, [](List& list) { list.removeObject(&first); }},
        {"removeValue", 1,
         [](List& list) {
             list.removeValue(&first);
             first.release();
         }},
        {"removeValue of another", 1, [](List& list) { list.removeValue(&absent); }},
        {"removeValue of null", 0, [](List& list) { list.removeValue(nullptr); }},
        {"removeObjectAtIndex", 2, [](List& list) { list.removeObjectAtIndex(0); }},
        {"removeValueAtIndex", 2,
         [](List& list) {
             list.removeValueAtIndex(0);
             first.release();
         }},
        {"firstObject", 1, [](List& list) { list.firstObject(); }},
        {"nextObject", 1, [](List& list) { list.nextObject(); }},
        {"currentObject", 1, [](List& list) { list.currentObject(); }},
        {"count", 1, [](List& list) { list.count(); }},
        {"isEmpty", 1, [](List& list) { list.isEmpty(); }},
        {"safe", 0, [](List& list) { list.safe(); }},
        {"isSafe", 0, [](List& list) { list.isSafe(); }},
    };
    for (const auto& operation : operations) {
        List list;
        list.addObject(&first);
        list.addObject(&first);
        list.safe();
        check<List>(list, operation, contentOfList);
        list.nextObject(); // the cursor at the end
        check<List>(list, {"firstObject", 1, [](List& all) { all.firstObject(); }}, contentOfList);
    }
}

TEST_F(ContainerLocks, EachOperationOfASafeMap) {
    using Map = GPMap;
    const std::vector<Operation<Map>> operations = {
        {"setObject", 2, [](Map& map) { map.setObject(second.retain(), "second"); }},
        {"setObject of null", 0, [](Map& map) { map.setObject(nullptr, "second"); }},
        {"setNewObject", 1, [](Map& map) { map.setNewObject(second.retain(), "second"); }},
        {"removeObjectForKey", 1, [](Map& map) { map.removeObjectForKey("first"); }},
        {"removeObjectForKey of an absent key", 1, [](Map& map) { map.removeObjectForKey("absent"); }},
        {"removeObjectForKey of null", 0, [](Map& map) { map.removeObjectForKey(nullptr); }},
        {"objectForKey", 1, [](Map& map) { map.objectForKey("first"); }},
        {"objectForKey of null", 0, [](Map& map) { map.objectForKey(nullptr); }},
        {"firstKey", 2, [](Map& map) { map.firstKey(); }},
        {"nextKey", 1, [](Map& map) { map.nextKey(); }},
        {"count", 1, [](Map& map) { map.count(); }},
        {"safe", 0, [](Map& map) { map.safe(); }},
        {"isSafe", 0, [](Map& map) { map.isSafe(); }},
    };
    for (const auto& operation : operations) {
        Map map(3);
        map.setObject(first.retain(), "first");
        map.safe();
        check<Map>(map, operation, contentOfMap);
    }
    Map empty;
    empty.safe();
    check<Map>(empty, {"firstKey of an empty map", 1, [](Map& map) { map.firstKey(); }}, contentOfMap);
    check<Map>(empty,
               {"removeObjectForKey of an empty map", 1, [](Map& map) { map.removeObjectForKey("first"); }},
               contentOfMap);
}

TEST_F(ContainerLocks, ARebalanceTakesTheMapsLockToCollectThePairsForEachRemovalAndToPutThemBack) {
    const auto locksOfARebalance = [](int pairs, bool safe) {
        GPMap map(3);
        for (int index = 0; index < pairs; ++index)
            map.setObject(first.retain(), std::to_string(index).c_str());
        if (safe) map.safe();
        const testsupport::LockCounter locks;
        map.rebalance();
        EXPECT_EQ(locks.held(), 0);
        return locks.count();
    };
    const long ofTheLog = locksOfARebalance(0, false);
    EXPECT_EQ(locksOfARebalance(0, true) - ofTheLog, 2);
    EXPECT_EQ(locksOfARebalance(3, true) - ofTheLog, 5);
}

TEST_F(ContainerLocks, ARebalanceMakesRoomBehindItsLastLock) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker has the place of the lock functions";
    GPMap map(3);
    map.safe();
    std::vector<long> made;
    made.reserve(100);
    const testsupport::AllocationCounter allocations;
    testsupport::LockCounter locks;
    locks.behindEachLock([&] { made.push_back(allocations.count()); });
    locks.beforeEachUnlock([&] { made.push_back(allocations.count()); });
    map.rebalance();
    ASSERT_GE(made.size(), 4u);
    // From the end: the map's last unlock, its lock, and the unlock in front of that.
    const auto last = made.rbegin();
    EXPECT_GT(last[0], last[1]);
    EXPECT_EQ(last[1], last[2]);
}

// Looks into the container as it is retained.
class Retained : public GPObject {
public:
    GPObject* retain() override {
        seen.push_back(look());
        return GPObject::retain();
    }
    std::function<int()> look;
    std::vector<int> seen;
};

TEST(ContainerReferences, AnObjectIsRetainedBeforeAContainerHoldsIt) {
    Retained object;
    {
        GPList list;
        object.look = [&] { return list.count(); };
        list.addObject(&object);
        list.push(&object);
        list.insertObject(nullptr, &object);
        list.insertObject(0, &object);
    }
    EXPECT_EQ(object.seen, (std::vector<int>{0, 1, 2, 3}));
    object.seen.clear();
    {
        GPArray array;
        object.look = [&] { return array.count(); };
        array.addObject(&object);
        array.addObject(&object);
    }
    EXPECT_EQ(object.seen, (std::vector<int>{0, 1}));
}

TEST_F(ContainerLocks, EachReferenceOfAnArrayThatIsSharedIsTakenAndGivenBackUnderItsOwnLock) {
    auto* array = new GPArray;
    array->safe();
    const auto locksOf = [](const std::function<void()>& operation) {
        const testsupport::LockCounter locks;
        operation();
        EXPECT_EQ(locks.held(), 0);
        return locks.count();
    };

    EXPECT_EQ(locksOf([&] { array->retain()->release(); }), 0) << "not shared yet";
    EXPECT_EQ(locksOf([&] { array->safeRetain(); }), 1);
    EXPECT_EQ(locksOf([&] { array->safeRetain(); }), 1);
    EXPECT_EQ(locksOf([&] { array->release(); }), 1);
    array->release();
    array->release();
}

// What small containers have inside themselves asks for no memory.

#include "gp/GPArray.h"
#include "gp/GPList.h"
#include "gp/GPMap.h"
#include "gp/GPObject.h"
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

namespace {

template <class Change>
long allocationsOf(Change change) {
    const testsupport::AllocationCounter allocations;
    change();
    return allocations.count();
}

} // namespace

TEST(ContainerAllocations, AnArrayHasFiveEntriesInside) {
    GPObject object;
    GPArray array;
    EXPECT_EQ(allocationsOf([&] {
                  for (int round = 0; round < 3; ++round) {
                      while (array.count() < 5)
                          array.addObject(&object);
                      array.removeObjectAtIndex(round);
                      array.removeObject(&object);
                  }
                  array.removeAllObjects();
              }),
              0);
    EXPECT_EQ(allocationsOf([&] {
                  for (int i = 0; i < 6; ++i)
                      array.addObject(&object);
              }),
              1);
}

TEST(ContainerAllocations, AListHasItsFirstNodeInsideEachTimeThatItIsFree) {
    GPObject object, other;
    GPList list;
    EXPECT_EQ(allocationsOf([&] {
                  for (int round = 0; round < 3; ++round) {
                      list.addObject(&object);
                      list.removeValue(list.firstObject());
                      list.push(&object);
                      list.pop();
                      list.insertObject(nullptr, &object);
                      list.removeObjectAtIndex(0);
                      object.releaseonly(); // that of removeValue, which leaves it
                  }
              }),
              0);
    list.addObject(&object);
    EXPECT_EQ(allocationsOf([&] { list.addObject(&other); }), 1);
    list.removeObjectAtIndex(0);
    EXPECT_EQ(allocationsOf([&] { list.insertObject(&other, &object); }), 0);
    EXPECT_EQ(list.objectAtIndex(0), &other);
    EXPECT_EQ(list.objectAtIndex(1), &object);
}

TEST(ContainerAllocations, AnEntryOfAMapIsOnePieceOfMemoryWithItsKey) {
    GPMap map;
    EXPECT_EQ(allocationsOf([&] { map.setObject(new GPObject, "a key that no small room holds"); }), 2)
        << "the value and the pair";
}

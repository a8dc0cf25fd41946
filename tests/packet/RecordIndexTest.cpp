// How the index and the orders of records grow and use memory; that a walk finds the right ones is HijackTable's test.

#include "packet/RecordIndex.h"
#include "packet/RecordOrder.h"

#include "support/AllocationCounter.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <vector>

using testsupport::AllocationCounter;

namespace {

struct Record {
    RecordIndexHook<Record> inIndex;
    RecordOrderHook<Record> inOrder;
    std::size_t inHeap = 0;
};

struct PlaceInHeap {
    static std::size_t& of(Record* record) { return record->inHeap; }
};

using Order = RecordOrder<Record, &Record::inOrder>;
using Index = RecordIndex<Record, &Record::inIndex>;

bool isAny(const Record*) { return true; }

} // namespace

TEST(RecordIndex, WithoutAnyGroupThereIsNoneToAsk) {
    const Index index;
    EXPECT_EQ(index.first(7, isAny), nullptr);
}

TEST(RecordIndex, OfGroupsInOnePlaceOfTheTableThatOfTheHashAloneIsAsked) {
    Index index;
    Record records[2];
    constexpr std::uint64_t placesOfATable = 1 << 20;
    index.add(&records[0], 7, isAny);
    index.add(&records[1], 7 + placesOfATable, isAny);
    EXPECT_EQ(index.first(7, isAny), &records[0]);
    EXPECT_EQ(index.first(7 + placesOfATable, isAny), &records[1]);
    EXPECT_EQ(index.first(7 + 2 * placesOfATable, isAny), nullptr);
    EXPECT_EQ(index.first(7, [](const Record*) { return false; }), nullptr);
}

TEST(RecordIndex, GroupsThatComeAndGoTakeNoMoreRoom) {
    Index index;
    Record record;
    index.add(&record, 0, isAny);
    index.remove(&record);
    const AllocationCounter allocations;

    for (std::uint64_t hash = 0; hash < 1000; ++hash) {
        index.add(&record, hash, isAny);
        index.remove(&record);
    }

    EXPECT_EQ(allocations.count(), 0);
}

TEST(RecordIndex, TheTableDoublesWithTheGroupsAndHasTwoPlacesForEach) {
    Index index;
    std::vector<Record> records(1024);
    const AllocationCounter allocations;

    for (std::uint64_t hash = 0; hash < records.size(); ++hash)
        index.add(&records[hash], hash, isAny);

    EXPECT_EQ(allocations.count(), 6); // 64, 128, 256, 512, 1024, 2048
    for (std::uint64_t hash = 0; hash < records.size(); ++hash)
        EXPECT_EQ(index.first(hash, isAny), &records[hash]);
}

TEST(RecordIndex, EveryRecordIsFoundWhileTheTableGrows) {
    // Fills the table from both of its ends.
    const auto hashOf = [](std::uint64_t number) { return number % 2 == 0 ? number / 2 : ~(number / 2); };
    Index index;
    std::vector<Record> records(600);

    for (std::uint64_t number = 0; number < records.size(); ++number) {
        index.add(&records[number], hashOf(number), isAny);
        for (std::uint64_t earlier = 0; earlier <= number; ++earlier)
            ASSERT_EQ(index.first(hashOf(earlier), isAny), &records[earlier]) << "of " << number;
    }
}

TEST(RecordIndex, RecordsLeaveWhileTheTableGrows) {
    Index index;
    std::vector<Record> records(600);

    for (std::uint64_t hash = 0; hash < records.size(); ++hash) {
        index.add(&records[hash], hash, isAny);
        if (hash % 3 != 2) continue;
        index.remove(&records[hash / 2]);
        index.add(&records[hash / 2], hash / 2, isAny);
    }

    for (std::uint64_t hash = 0; hash < records.size(); ++hash) {
        ASSERT_EQ(index.first(hash, isAny), &records[hash]);
        index.remove(&records[hash]);
        ASSERT_EQ(index.first(hash, isAny), nullptr);
    }
}

TEST(RecordIndex, TwoHashesOfOnePlaceAreTwoGroups) {
    constexpr std::uint64_t further = 1u << 20; // the same place in any table of this test
    Index index;
    std::vector<Record> records(3);
    for (std::uint64_t i = 0; i < records.size(); ++i)
        index.add(&records[i], 5 + i * further, isAny);

    for (std::uint64_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(index.first(5 + i * further, isAny), &records[i]);
        EXPECT_EQ(Index::next(&records[i]), nullptr);
    }
    index.remove(&records[1]);
    EXPECT_EQ(index.first(5, isAny), &records[0]);
    EXPECT_EQ(index.first(5 + further, isAny), nullptr);
    EXPECT_EQ(index.first(5 + 2 * further, isAny), &records[2]);
}

TEST(RecordIndex, RecordsOfOneKeyFollowEachOtherAsTheyCame) {
    Index index;
    Record a, b, c, d;
    for (Record* record : {&a, &b, &c, &d})
        index.add(record, 7, isAny);
    const auto group = [&index] {
        std::vector<Record*> found;
        for (Record* record = index.first(7, isAny); record; record = Index::next(record))
            found.push_back(record);
        return found;
    };
    EXPECT_EQ(group(), (std::vector<Record*>{&a, &b, &c, &d}));

    index.remove(&b);
    EXPECT_EQ(group(), (std::vector<Record*>{&a, &c, &d}));
    index.remove(&a);
    EXPECT_EQ(group(), (std::vector<Record*>{&c, &d}));
    index.remove(&d);
    index.add(&a, 7, isAny);
    EXPECT_EQ(group(), (std::vector<Record*>{&c, &a}));
}

TEST(RecordOrder, BehindIsTheNextOfTheSameSequence) {
    Order order;
    Record early, late, latest, stray;
    order.add(&early, 10);
    order.add(&late, 20);
    order.add(&latest, 30);
    order.add(&stray, 25); // begins the other sequence

    EXPECT_EQ(Order::behind(&early), &late);
    EXPECT_EQ(Order::behind(&late), &latest);
    EXPECT_EQ(Order::behind(&latest), nullptr);
    EXPECT_EQ(Order::behind(&stray), nullptr);
}

TEST(RecordOrder, WhatFitsIntoNoSequenceHasNothingBehindIt) {
    Order order;
    std::vector<Record> records(4);
    order.makeRoom(records.size());
    order.add(&records[3], 1);
    order.add(&records[2], 2);
    order.remove(&records[3]); // with a link that it keeps
    order.remove(&records[2]);
    for (std::size_t i = 0; i < records.size(); ++i)
        order.add(&records[i], 100 - static_cast<std::int64_t>(i));

    EXPECT_EQ(Order::behind(&records[2]), nullptr);
    EXPECT_EQ(Order::behind(&records[3]), nullptr);
    EXPECT_EQ(order.first(), &records[3]);
}

TEST(RecordOrder, AnswersTheSmallestOfNumbersInAnyOrder) {
    Order order;
    std::vector<Record> records(300);
    std::multimap<std::int64_t, Record*> expected;
    std::mt19937 random(1);
    for (int step = 0; step < 100000; ++step) {
        Record* const record = &records[random() % records.size()];
        const auto held = std::find_if(expected.begin(), expected.end(),
                                       [record](const auto& entry) { return entry.second == record; });
        if (held != expected.end()) {
            order.remove(record);
            expected.erase(held);
        } else {
            // Two rising sequences, and now and then a number of neither, as small as theirs.
            const std::int64_t number = step + (random() % 8 == 0 ? static_cast<std::int64_t>(random() % 200)
                                                : random() % 2 == 0 ? 30
                                                                    : 120);
            order.makeRoom(records.size());
            order.add(record, number);
            expected.emplace(number, record);
        }
        ASSERT_EQ(order.isEmpty(), expected.empty());
        if (expected.empty()) continue;
        ASSERT_EQ(order.firstNumber(), expected.begin()->first);
        ASSERT_EQ(order.first()->inOrder.number, order.firstNumber());
    }
}

TEST(RecordOrder, TwoRisingSequencesTakeNoMemory) {
    Order order;
    std::vector<Record> records(1000);
    const AllocationCounter allocations;

    for (std::size_t i = 0; i < records.size(); ++i)
        order.add(&records[i], static_cast<std::int64_t>(i / 4 + (i % 2 == 0 ? 30 : 120)));

    EXPECT_EQ(allocations.count(), 0);
    EXPECT_EQ(order.firstNumber(), 30);
}

TEST(RecordHeap, RoomIsMadeForTwiceTheRecords) {
    RecordHeap<Record, PlaceInHeap> heap;
    std::vector<Record> records(1000);
    const AllocationCounter allocations;

    for (std::size_t i = 0; i < records.size(); ++i) {
        heap.makeRoom(i + 1);
        heap.add(&records[i], static_cast<std::int64_t>(i));
    }

    EXPECT_LE(allocations.count(), 10);
    EXPECT_EQ(heap.first(), &records[0]);
}

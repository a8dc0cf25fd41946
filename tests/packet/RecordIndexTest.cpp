// How the index and the heap of records use memory; that they find the right ones is HijackTable's test.

#include "packet/RecordIndex.h"
#include "packet/RecordHeap.h"

#include "support/AllocationCounter.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

using testsupport::AllocationCounter;

namespace {

struct Record {
    RecordIndexHook<Record> inIndex;
    std::size_t inHeap = 0;
};

using Index = RecordIndex<Record, &Record::inIndex>;

bool isAny(const Record*) { return true; }

} // namespace

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

TEST(RecordIndex, TheTableDoublesWithTheGroups) {
    Index index;
    std::vector<Record> records(1024);
    const AllocationCounter allocations;

    for (std::uint64_t hash = 0; hash < records.size(); ++hash)
        index.add(&records[hash], hash, isAny);

    EXPECT_EQ(allocations.count(), 5); // 64, 128, 256, 512, 1024
    for (std::uint64_t hash = 0; hash < records.size(); ++hash)
        EXPECT_EQ(index.first(hash, isAny), &records[hash]);
}

TEST(RecordHeap, RoomIsMadeForTwiceTheRecords) {
    RecordHeap<Record, &Record::inHeap> heap;
    std::vector<Record> records(1000);
    const AllocationCounter allocations;

    for (std::size_t i = 0; i < records.size(); ++i) {
        heap.makeRoom(i + 1);
        heap.add(&records[i], static_cast<std::int64_t>(i));
    }

    EXPECT_LE(allocations.count(), 10);
    EXPECT_EQ(heap.first(), &records[0]);
}

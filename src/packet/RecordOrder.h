#pragma once

// RecordOrder: records by a number, the smallest first. Numbers mostly come in two rising sequences, as the ends of
// two kinds of lives do: each sequence is a chain through the records, where adding and taking out touch the neighbours
// alone. What fits into neither goes into a heap. The order among equal numbers is any. Not thread-safe.

#include "packet/RecordHeap.h"

#include <cstddef>
#include <cstdint>

template <class Record>
struct RecordOrderHook {
    std::int64_t number = 0;
    Record* next = nullptr;
    Record* previous = nullptr;
    std::size_t heapPlace = 0;
    int chain = -1; // -1: in the heap
};

template <class Record, RecordOrderHook<Record> Record::*hook>
class RecordOrder {
public:
    bool isEmpty() const { return !chains_[0].first && !chains_[1].first && heap_.isEmpty(); }

    // The record with the smallest number, and that number; not when it is empty.
    Record* first() const {
        Record* smallest = heap_.isEmpty() ? nullptr : heap_.first();
        for (const Chain& chain : chains_) {
            if (chain.first && (!smallest || numberOf(chain.first) < numberOf(smallest)))
                smallest = chain.first;
        }
        return smallest;
    }
    std::int64_t firstNumber() const { return numberOf(first()); }

    // The record behind this one in its sequence, which may be any later one of all; null at its end and in the heap.
    static Record* behind(const Record* record) {
        const RecordOrderHook<Record>& own = record->*hook;
        return own.chain < 0 ? nullptr : own.next;
    }

    // Makes room, so that adding up to that many records allocates nothing.
    void makeRoom(std::size_t count) { heap_.makeRoom(count); }

    void add(Record* record, std::int64_t number) {
        links(record).number = number;
        links(record).chain = chainFor(number);
        if (links(record).chain < 0) {
            heap_.add(record, number);
            return;
        }
        Chain& chain = chains_[links(record).chain];
        links(record).previous = chain.last;
        links(record).next = nullptr;
        (chain.last ? links(chain.last).next : chain.first) = record;
        chain.last = record;
    }

    // Takes a record out that is in it.
    void remove(Record* record) {
        const RecordOrderHook<Record>& own = links(record);
        if (own.chain < 0) {
            heap_.remove(record);
            return;
        }
        Chain& chain = chains_[own.chain];
        (own.previous ? links(own.previous).next : chain.first) = own.next;
        (own.next ? links(own.next).previous : chain.last) = own.previous;
    }

private:
    struct Chain {
        Record* first = nullptr;
        Record* last = nullptr;
    };

    // NOLINTNEXTLINE(clang-analyzer-core.uninitialized.UndefReturn): first() is null only where isEmpty() says so
    static RecordOrderHook<Record>& links(Record* record) { return record->*hook; }
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): as above
    static std::int64_t numberOf(const Record* record) { return (record->*hook).number; }

    // The chain that the number fits behind: the one that ends closest to it, else an empty one; -1 for none.
    int chainFor(std::int64_t number) const {
        int best = -1;
        for (int i = 0; i < 2; ++i) {
            const Record* const last = chains_[i].last;
            if (last && numberOf(last) > number) continue;
            const bool isCloser =
                best < 0 || !chains_[best].last || (last && numberOf(last) > numberOf(chains_[best].last));
            if (isCloser) best = i;
        }
        return best;
    }

    struct PlaceInHeap {
        static std::size_t& of(Record* record) { return (record->*hook).heapPlace; }
    };

    Chain chains_[2];
    RecordHeap<Record, PlaceInHeap> heap_;
};

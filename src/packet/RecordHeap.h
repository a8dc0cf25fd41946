#pragma once

// RecordHeap: records by a number, the smallest first. Each record knows its place, where `Place::of` has it, so that
// any can be taken out in steps that grow with the logarithm of their count. Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <vector>

template <class Record, class Place>
class RecordHeap {
public:
    bool isEmpty() const { return entries_.empty(); }

    // The record with the smallest number, and that number; not on an empty heap.
    Record* first() const { return entries_.front().record; }
    std::int64_t firstNumber() const { return entries_.front().number; }

    // Makes room, so that adding up to that many records allocates nothing.
    void makeRoom(std::size_t count) {
        if (count > entries_.capacity()) entries_.reserve(count * 2);
    }

    void add(Record* record, std::int64_t number) {
        entries_.push_back({number, record});
        moveUp(entries_.size() - 1);
    }

    // Takes a record out that is in the heap.
    void remove(Record* record) {
        const std::size_t at = Place::of(record);
        const Entry last = entries_.back();
        entries_.pop_back();
        if (last.record == record) return;
        entries_[at] = last;
        moveUp(at);
        moveDown(Place::of(last.record));
    }

private:
    // Four children each: fewer levels, and the children stand together in memory.
    static constexpr std::size_t children = 4;

    struct Entry {
        std::int64_t number;
        Record* record;
    };

    void put(std::size_t at, const Entry& entry) {
        entries_[at] = entry;
        Place::of(entry.record) = at;
    }

    void moveUp(std::size_t at) {
        const Entry entry = entries_[at];
        while (at > 0) {
            const std::size_t parent = (at - 1) / children;
            if (entries_[parent].number <= entry.number) break;
            put(at, entries_[parent]);
            at = parent;
        }
        put(at, entry);
    }

    void moveDown(std::size_t at) {
        const Entry entry = entries_[at];
        for (;;) {
            const std::size_t begin = at * children + 1;
            const std::size_t end = begin + children < entries_.size() ? begin + children : entries_.size();
            std::size_t smallest = begin;
            for (std::size_t child = begin; child < end; ++child) {
                if (entries_[child].number < entries_[smallest].number) smallest = child;
            }
            // cppcheck-suppress knownConditionTrueFalse // the last entries have nothing below them
            if (begin >= end || entries_[smallest].number >= entry.number) break;
            put(at, entries_[smallest]);
            at = smallest;
        }
        put(at, entry);
    }

    std::vector<Entry> entries_;
};

#pragma once

// RecordIndex: finds records by a key, in the order in which they were added. Records with one key are a group, a
// ring; the first of it stands for the group in the table of hashes. All links are in the records themselves, so
// finding and removing allocate nothing and no key is copied. The table grows a few places at a time, so that no single
// addition waits for all of it. The hashes are the caller's. Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <vector>

template <class Record>
struct RecordIndexHook {
    std::uint64_t hash = 0;
    Record* next = nullptr;
    Record* previous = nullptr;
    Record* nextGroup = nullptr; // in the same place of the table; the first of a group has it
    bool isFirst = false;
};

template <class Record, RecordIndexHook<Record> Record::*hook>
class RecordIndex {
public:
    // The first record of the group that `isWanted`, asked with a record of it, recognises; null without one.
    template <class IsWanted>
    Record* first(std::uint64_t hash, IsWanted isWanted) const {
        if (groupsAt_.empty()) return nullptr;
        for (Record* group = headOf(hash); group; group = links(group).nextGroup) {
            if (links(group).hash == hash && isWanted(group)) return group;
        }
        return nullptr;
    }

    // Has the processor fetch the hash's place in the table.
    void prefetch(std::uint64_t hash) const {
        if (groupsAt_.empty()) return;
        __builtin_prefetch(static_cast<const void*>(&groupsAt_[hash & (groupsAt_.size() - 1)]));
    }

    // The record behind this one in its group, or null.
    static Record* next(const Record* record) {
        Record* behind = (record->*hook).next;
        return links(behind).isFirst ? nullptr : behind;
    }

    // Puts a record at the end of the group that `isWanted` recognises, or begins one with it.
    template <class IsWanted>
    void add(Record* record, std::uint64_t hash, IsWanted isWanted) {
        if (groupCount_ * placesForEachGroup >= groupsAt_.size()) grow();
        moveSome();
        Record* group = first(hash, isWanted);
        if (!group) {
            links(record) = {hash, record, record, nullptr, true};
            enter(record);
            ++groupCount_;
            return;
        }
        Record* last = links(group).previous;
        links(record) = {hash, group, last, nullptr, false};
        links(last).next = record;
        links(group).previous = record;
    }

    // Takes a record out that is in the index. The next of its group takes its place.
    void remove(Record* record) {
        RecordIndexHook<Record>& own = links(record);
        if (own.isFirst) {
            Record** place = placeOfGroup(record);
            *place = own.nextGroup;
            if (own.next == record) {
                --groupCount_;
            } else {
                links(own.next).isFirst = true;
                enter(own.next);
            }
        }
        links(own.previous).next = own.next;
        links(own.next).previous = own.previous;
        own = {};
    }

private:
    static constexpr std::size_t smallest = 64;

    // Most places have one group or none: a second one in the same place is a record that has left the processor's cache.
    static constexpr std::size_t placesForEachGroup = 2;

    static RecordIndexHook<Record>& links(Record* record) { return record->*hook; }

    // The first group in a hash's place: in the table before the last growth until that place has been moved.
    Record*& headOf(std::uint64_t hash) {
        if (!before_.empty()) {
            const std::size_t place = hash & (before_.size() - 1);
            if (place >= moved_) return before_[place];
        }
        return groupsAt_[hash & (groupsAt_.size() - 1)];
    }
    Record* headOf(std::uint64_t hash) const { return const_cast<RecordIndex*>(this)->headOf(hash); }

    Record** placeOfGroup(Record* first) {
        Record** place = &headOf(links(first).hash);
        while (*place != first)
            place = &links(*place).nextGroup;
        return place;
    }

    void enter(Record* first) {
        Record*& head = headOf(links(first).hash);
        links(first).nextGroup = head;
        head = first;
    }

    // By then the last growth has long been finished: it took a quarter as many additions as it made places.
    void grow() {
        before_.swap(groupsAt_);
        groupsAt_.assign(before_.empty() ? smallest : before_.size() * 2, nullptr);
        moved_ = 0;
    }

    void moveSome() {
        for (int i = 0; i < placesMovedAtOnce && !before_.empty(); ++i) {
            Record* group = before_[moved_++];
            while (group) {
                Record* const nextGroup = links(group).nextGroup;
                enter(group);
                group = nextGroup;
            }
            if (moved_ == before_.size()) before_ = {};
        }
    }

    static constexpr int placesMovedAtOnce = 4;

    std::vector<Record*> groupsAt_; // its size is a power of two
    std::vector<Record*> before_;   // the table that grows, while it does, from place `moved_` on
    std::size_t moved_ = 0;
    std::size_t groupCount_ = 0;
};

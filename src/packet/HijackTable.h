#pragma once

// The table of the connections' records: the list in order of creation, and what finds a record in it without a
// walk. The rule is a walk over the list in which each record is looked at: one whose time is over is taken out,
// the one behind it is then passed over, and the first live record that answers to the packet ends the walk.
// While no time is over only the answer is left of that, and the index of connections has it. Otherwise only the
// records whose time is over are visited, in the order of the list.
//
// Not thread-safe: HijackPacket's lock is held around every operation. Finding allocates nothing.

#include "gp/GPList.h"
#include "packet/HijackPacket.h"
#include "packet/RecordHashes.h"
#include "packet/RecordIndex.h"
#include "packet/RecordOrder.h"

#include <cstdint>

struct ConnectionEnds;

class HijackTable {
public:
    // Lives as long as the process.
    HijackTable();

    HijackTable(const HijackTable&) = delete;
    HijackTable& operator=(const HijackTable&) = delete;

    // Appends a record, which gets a reference from the list. Its creator's reference goes when it leaves.
    void add(HijackPacket* record);

    // The first live record of these ends, or null; borrowed. Reads the clock once, unless there is no record.
    HijackPacket* find(const ConnectionEnds& ends);

    // The oldest record of this very URL that is not resolved, whatever its time, or null; borrowed.
    HijackPacket* oldestOpen(const char* url) const;

    // A listed record has been resolved and may have a new time. Once for each record.
    void resolved(HijackPacket* record);

    // Takes a record out and drops its two references. False, with nothing done, for one that is not listed.
    bool remove(HijackPacket* record);

    int count() { return list_->count(); }

private:
    bool isOver(const HijackPacket* record) const;
    void sortOut();
    void fetchBehind(const HijackPacket* record) const;
    HijackPacket* firstOf(const ConnectionEnds& ends, std::uint64_t hash, bool https) const;
    HijackPacket* findByIndex(const ConnectionEnds& ends);
    HijackPacket* findByWalk(const ConnectionEnds& ends);
    void dropOverBefore(std::int64_t order);
    void drop(HijackPacket* record);
    void run(HijackPacket* record);
    void putBack();
    void unlist(HijackPacket* record);

    std::uint64_t hashOf(const ConnectionEnds& ends) const;
    std::uint64_t hashOf(const HijackPacket* record) const;

    GPList* list_;
    // The plain and the TLS records of a connection are two groups, so that no packet passes by those that ignore it.
    RecordIndex<HijackPacket, &HijackPacket::inConnections_> connections_;
    RecordIndex<HijackPacket, &HijackPacket::inOpen_> open_;

    // Every record is in one of the two: by the end of its time, or by its place in the list once that was over.
    // A clock that is set back moves none; a walk that meets one that lives again moves that.
    RecordOrder<HijackPacket, &HijackPacket::inOrder_> running_;
    RecordOrder<HijackPacket, &HijackPacket::inOrder_> over_;

    // Of the walk under way: its time, the record behind the last one that was taken out, and those of `over_`
    // that were passed over, in the list's order.
    std::int64_t now_ = 0;
    HijackPacket* passedOver_ = nullptr;
    HijackPacket* setAside_ = nullptr;
    HijackPacket* lastSetAside_ = nullptr; // if there is one

    std::int64_t nextOrder_ = 0;
    const RecordHashes hashes_;
};

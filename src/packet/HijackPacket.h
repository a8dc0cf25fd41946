#pragma once

// The memory of one connection whose URL went to the policy agent: open while the query runs, then allowed
// or redirecting until its time is over. All records sit in one process-wide list, which HijackTable keeps; the
// packet path consults it and drops expired records on its way, the query threads resolve them.
//
// The static operations may be called on any thread; one lock guards the list. A record has two references,
// its creator's and the list's, and both go when it leaves the list.

#include "gp/GPList.h"
#include "gp/GPObject.h"
#include "gp/GPTimer.h"
#include "packet/ConnectionEnds.h"
#include "packet/RecordIndex.h"
#include "packet/RecordOrder.h"

#include <atomic>
#include <cstdint>
#include <netinet/in.h>

class GPString;

class HijackPacket : public GPObject {
public:
    // Starts a record for the connection of an outbound packet: 30 seconds for plain HTTP, 120 for TLS. False,
    // with no record made, for a packet without payload. Records that are there already are not looked at.
    static bool create(char* packet, const char* url, bool https);

    // The first live record of the packet's connection, in either direction, or null. A plain HTTP record
    // ignores packets without payload. Borrowed, and not safe against another thread's walk, which may drop
    // it when its time is over; see Found. Drops the expired records that it meets.
    static HijackPacket* find(char* packet);

    // Answers the oldest open record of this very URL. A null redirect allows the connection. A time above 0
    // gives the record that many seconds from now, otherwise its time stays. False when no record is open.
    static bool resolve(const char* url, const char* redirect, int timeoutSeconds);
    static bool resolve(const char* url, const char* redirect);

    // Takes a record out of the list at once. A record that is not listed is left alone.
    static void remove(HijackPacket* record);

    // The record's life in microseconds.
    int getTimeout() const { return timeout_.load(std::memory_order_relaxed); }

    bool isHttps() const { return https_; }
    bool isResolved() const { return resolved_.load(std::memory_order_relaxed); }

    // The URL to redirect to; null while open and for an allowed URL. Lives as long as the record.
    const char* redirectURL() const;

    // The URL under query.
    const char* URL() const;

    ~HijackPacket() override;

    // Whether the other record is of the same connection, in either direction. Any thread.
    bool isOfSameConnection(const HijackPacket* other) const;

    // Finds a packet's record and keeps it alive for the length of a scope, so that the other listener may
    // drop it meanwhile. Holds no lock in between.
    class Found {
    public:
        explicit Found(char* packet);
        ~Found();

        Found(const Found&) = delete;
        Found& operator=(const Found&) = delete;

        HijackPacket* get() const { return record_; }
        HijackPacket* operator->() const { return record_; }
        explicit operator bool() const { return record_ != nullptr; }

    private:
        HijackPacket* record_;
    };

private:
    friend class HijackTable;

    HijackPacket(const ConnectionEnds& ends, const char* url, bool https);

    // Whether a packet belongs to this connection, in either direction.
    bool matches(const ConnectionEnds& ends) const;

    // Whether the record speaks for such a packet of its connection.
    bool answersTo(const ConnectionEnds& ends) const { return https_ || ends.hasPayload; }

    // What a log line shows of a record.
    static unsigned mark(const HijackPacket* record);

    // Set by the constructor and never changed.
    GPString* url_;
    bool https_;
    unsigned srcAddress_;
    unsigned dstAddress_;
    in6_addr srcAddressIpv6_;
    in6_addr dstAddressIpv6_;
    int srcPort_;
    int dstPort_;

    // Stored by the one resolve that answers the record, with the list's lock held, and read without it.
    std::atomic<GPString*> redirect_{nullptr};
    std::atomic<bool> resolved_{false};
    std::atomic<int> timeout_;

    // Guarded by the list's lock. No object of its own, which would be one more piece of memory.
    GPTimer timer_;

    // The table's, guarded by the list's lock.
    std::int64_t end_ = 0;   // of the record's time, microseconds since the epoch
    std::int64_t order_ = 0; // its number in the list
    bool wasOver_ = false;   // and no walk has met it alive since
    GPList::Node* place_ = nullptr;
    RecordIndexHook<HijackPacket> inConnections_;
    RecordIndexHook<HijackPacket> inOpen_;
    RecordOrderHook<HijackPacket> inOrder_;
    HijackPacket* nextSetAside_ = nullptr;
};

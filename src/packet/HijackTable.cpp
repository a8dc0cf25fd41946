#include "packet/HijackTable.h"

#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h"
#include "packet/ConnectionEnds.h"

#include <cstddef>
#include <limits>

namespace {

constexpr std::size_t cacheLine = 64;
constexpr std::int64_t endOfList = std::numeric_limits<std::int64_t>::max();

// Where a record's time ends that began at `start`. At a limit of the clock's range it ends there.
std::int64_t endOf(std::int64_t start, int timeout) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t end;
    if (__builtin_add_overflow(start, timeout, &end)) return timeout > 0 ? Limits::max() : Limits::min();
    return end;
}

} // namespace

// Addresses and the time of day are nothing that the sender of a packet or of a URL knows.
HijackTable::HijackTable()
    : list_(new GPList),
      hashes_(reinterpret_cast<std::uintptr_t>(list_), static_cast<std::uint64_t>(GPTimer::getClockTime()),
              reinterpret_cast<std::uintptr_t>(this)) {}

// The sum makes both directions of a connection one key.
std::uint64_t HijackTable::hashOf(const ConnectionEnds& ends) const {
    return hashes_.ofEnd(ends.src, ends.srcIpv6, ends.srcPort) +
           hashes_.ofEnd(ends.dst, ends.dstIpv6, ends.dstPort);
}

std::uint64_t HijackTable::hashOf(const HijackPacket* record) const {
    return hashes_.ofEnd(record->srcAddress_, record->srcAddressIpv6_, record->srcPort_) +
           hashes_.ofEnd(record->dstAddress_, record->dstAddressIpv6_, record->dstPort_);
}

void HijackTable::add(HijackPacket* record) {
    const std::uint64_t hashOfConnection = hashOf(record);
    const std::uint64_t hashOfUrl = hashes_.ofUrl(record->URL());
    connections_.prefetch(hashOfConnection);
    open_.prefetch(hashOfUrl);
    list_->addObject(record);
    record->place_ = list_->place();
    record->order_ = nextOrder_++;
    connections_.add(record, hashOfConnection, [record](const HijackPacket* other) {
        return record->isHttps() == other->isHttps() && record->isOfSameConnection(other);
    });
    open_.add(record, hashOfUrl,
              [record](const HijackPacket* other) { return record->url_->isEqual(other->url_); });

    const auto records = static_cast<std::size_t>(list_->count());
    running_.makeRoom(records);
    over_.makeRoom(records);
    record->end_ = endOf(record->timer_.startedTime(), record->getTimeout());
    running_.add(record, record->end_);
}

HijackPacket* HijackTable::find(const ConnectionEnds& ends) {
    if (list_->isEmpty()) return nullptr;
    now_ = GPTimer::getClockTime();
    sortOut();
    passedOver_ = nullptr;
    setAside_ = nullptr;
    HijackPacket* const found = ends.isIpv6OfZeros() ? findByWalk(ends) : findByIndex(ends);
    putBack();
    return found;
}

bool HijackTable::isOver(const HijackPacket* record) const { return record->end_ < now_; }

// Afterwards every record whose time is over now is in `over_`.
void HijackTable::sortOut() {
    while (!running_.isEmpty() && running_.firstNumber() < now_) {
        HijackPacket* const record = running_.first();
        running_.remove(record);
        record->wasOver_ = true;
        over_.add(record, record->order_);
    }
}

HijackPacket* HijackTable::firstOf(const ConnectionEnds& ends, std::uint64_t hash, bool https) const {
    return connections_.first(hash, [&ends, https](const HijackPacket* other) {
        return other->isHttps() == https && other->matches(ends);
    });
}

HijackPacket* HijackTable::findByIndex(const ConnectionEnds& ends) {
    const std::uint64_t hash = hashOf(ends);
    HijackPacket* tls = firstOf(ends, hash, true);
    HijackPacket* plain = ends.hasPayload ? firstOf(ends, hash, false) : nullptr;
    while (tls || plain) {
        const bool isTlsNext = !plain || (tls && tls->order_ < plain->order_);
        HijackPacket*& next = isTlsNext ? tls : plain;
        HijackPacket* const record = next;
        next = connections_.next(record);
        if (isOver(record)) continue;
        dropOverBefore(record->order_);
        if (record != passedOver_) return record;
    }
    dropOverBefore(endOfList);
    return nullptr;
}

// An IPv6 packet of zeros meets every IPv4 record with its ports, whatever the addresses, and so no single key.
HijackPacket* HijackTable::findByWalk(const ConnectionEnds& ends) {
    list_->firstObject();
    while (auto* record = static_cast<HijackPacket*>(list_->currentObject())) {
        if (!isOver(record) && record->matches(ends) && record->answersTo(ends)) {
            // A removal that passes this record over leaves the cursor on it.
            dropOverBefore(record->order_);
            if (record != passedOver_) return record;
        }
        list_->nextObject();
    }
    dropOverBefore(endOfList);
    return nullptr;
}

// Does what the walk does to the records whose time is over, up to that place in the list.
void HijackTable::dropOverBefore(std::int64_t order) {
    while (!over_.isEmpty() && over_.firstNumber() < order) {
        HijackPacket* const record = over_.first();
        fetchBehind(record);
        if (!isOver(record)) {
            run(record); // the clock was set back
        } else if (record == passedOver_) {
            over_.remove(record);
            record->nextSetAside_ = nullptr;
            (setAside_ ? lastSetAside_->nextSetAside_ : setAside_) = record;
            lastSetAside_ = record;
        } else {
            drop(record);
        }
    }
}

// What the removal of a record touches was last used long ago, and comes from memory while the one in front of it goes:
// of the next in turn what it points at, and of the one behind that the record itself.
void HijackTable::fetchBehind(const HijackPacket* record) const {
    const HijackPacket* next = over_.behind(record);
    if (!next && !running_.isEmpty()) next = running_.first();
    if (!next) return;
    __builtin_prefetch(next->url_);
    __builtin_prefetch(next->place_);
    connections_.prefetch(next->inConnections_.hash);
    const HijackPacket* const second = next->wasOver_ ? over_.behind(next) : running_.behind(next);
    const auto* const bytes = reinterpret_cast<const char*>(second);
    for (std::size_t at = 0; second && at < sizeof *second; at += cacheLine)
        __builtin_prefetch(bytes + at);
}

void HijackTable::drop(HijackPacket* record) {
    if (Configuration::isLogLevel(128)) {
        logf("--- removed 0x%x object from hijackpackets; (%s) count=%d", HijackPacket::mark(record),
             record->URL(), list_->count());
    }
    unlist(record);
    // The removal moves the cursor on, and the rule's step moves it once more: the record behind
    // one whose time is over is not looked at in this walk.
    passedOver_ = static_cast<HijackPacket*>(list_->currentObject());
}

// Those that this walk has passed over wait for the next one, in the list's order still.
void HijackTable::putBack() {
    for (; setAside_; setAside_ = setAside_->nextSetAside_)
        over_.add(setAside_, setAside_->order_);
}

// Takes a record out of everything and drops its two references. The cursor goes to the record behind it.
void HijackTable::unlist(HijackPacket* record) {
    connections_.remove(record);
    if (!record->isResolved()) open_.remove(record);
    (record->wasOver_ ? over_ : running_).remove(record);
    list_->moveTo(record->place_);
    list_->removeObject(record);
    record->release();
}

HijackPacket* HijackTable::oldestOpen(const char* url) const {
    if (!url) return nullptr;
    return open_.first(hashes_.ofUrl(url),
                       [url](const HijackPacket* other) { return other->url_->isEqual(url); });
}

void HijackTable::resolved(HijackPacket* record) {
    open_.remove(record);
    record->end_ = endOf(record->timer_.startedTime(), record->getTimeout());
    run(record);
}

// Puts a record where it stands by the end of its time.
void HijackTable::run(HijackPacket* record) {
    (record->wasOver_ ? over_ : running_).remove(record);
    record->wasOver_ = false;
    running_.add(record, record->end_);
}

bool HijackTable::remove(HijackPacket* record) {
    if (list_->indexOfObject(record) < 0) return false;
    unlist(record);
    return true;
}

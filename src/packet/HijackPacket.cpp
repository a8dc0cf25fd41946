#include "packet/HijackPacket.h"

#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/ThreadSafety.h"
#include "packet/HijackTable.h"

#include <atomic>
#include <cstring>

namespace {

constexpr int plainLife = 30000000;
constexpr int tlsLife = 120000000;

// The lock of all records, and the records.
GPMutex* const mutex = new GPMutex;
HijackTable* const table GUARDED_BY(mutex) = new HijackTable;

// Whether there is a record at all: most packets come while there is none, and need no lock to know it. Stored with
// the lock held.
std::atomic<bool> hasRecords{false};

void noteRecords() REQUIRES(mutex) { hasRecords.store(table->count() > 0, std::memory_order_release); }

// The record of these ends.
HijackPacket* findLocked(const ConnectionEnds& ends) REQUIRES(mutex) {
    HijackPacket* const record = table->find(ends);
    noteRecords();
    return record;
}

bool sameAddress(const in6_addr& a, const in6_addr& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

const char* textOrNull(const char* text) { return text ? text : "null"; }

} // namespace

HijackPacket::HijackPacket(const ConnectionEnds& ends, const char* url, bool https)
    : url_(GPString::of(url ? url : "")), https_(https), srcAddress_(ends.src), dstAddress_(ends.dst),
      srcAddressIpv6_(ends.srcIpv6), dstAddressIpv6_(ends.dstIpv6), srcPort_(ends.srcPort),
      dstPort_(ends.dstPort), timeout_(https ? tlsLife : plainLife), timer_(true) {}

HijackPacket::~HijackPacket() {
    url_->release();
    if (GPString* redirect = redirect_.load(std::memory_order_acquire)) redirect->release();
}

bool HijackPacket::create(char* packet, const char* url, bool https) {
    const ConnectionEnds ends(packet);
    if (!ends.hasPayload) return false;
    // The creator's reference stays with the record; removal from the list drops it.
    auto* record = new HijackPacket(ends, url, https);

    GPMutexLock lock(mutex);
    table->add(record);
    noteRecords();
    if (Configuration::isLogLevel(128)) {
        logf("-++ added 0x%x to hijackpackets; (%s) count=%d", mark(record), url, table->count());
    }
    return true;
}

bool HijackPacket::matches(const ConnectionEnds& ends) const {
    const bool samePorts = ends.srcPort == srcPort_ && ends.dstPort == dstPort_;
    const bool swappedPorts = ends.srcPort == dstPort_ && ends.dstPort == srcPort_;
    if (ends.ipv6) {
        return (samePorts && sameAddress(ends.srcIpv6, srcAddressIpv6_) &&
                sameAddress(ends.dstIpv6, dstAddressIpv6_)) ||
               (swappedPorts && sameAddress(ends.srcIpv6, dstAddressIpv6_) &&
                sameAddress(ends.dstIpv6, srcAddressIpv6_));
    }
    if (ends.src == 0) return false;
    return (samePorts && ends.src == srcAddress_ && ends.dst == dstAddress_) ||
           (swappedPorts && ends.src == dstAddress_ && ends.dst == srcAddress_);
}

bool HijackPacket::isOfSameConnection(const HijackPacket* other) const {
    const bool same = srcPort_ == other->srcPort_ && dstPort_ == other->dstPort_ &&
                      srcAddress_ == other->srcAddress_ && dstAddress_ == other->dstAddress_ &&
                      sameAddress(srcAddressIpv6_, other->srcAddressIpv6_) &&
                      sameAddress(dstAddressIpv6_, other->dstAddressIpv6_);
    const bool swapped = srcPort_ == other->dstPort_ && dstPort_ == other->srcPort_ &&
                         srcAddress_ == other->dstAddress_ && dstAddress_ == other->srcAddress_ &&
                         sameAddress(srcAddressIpv6_, other->dstAddressIpv6_) &&
                         sameAddress(dstAddressIpv6_, other->srcAddressIpv6_);
    return same || swapped;
}

unsigned HijackPacket::mark(const HijackPacket* record) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(record));
}

HijackPacket* HijackPacket::find(char* packet) {
    if (!hasRecords.load(std::memory_order_acquire)) return nullptr;
    const ConnectionEnds ends(packet);
    GPMutexLock lock(mutex);
    return findLocked(ends);
}

HijackPacket::Found::Found(char* packet) : record_(nullptr) {
    if (!hasRecords.load(std::memory_order_acquire)) return;
    const ConnectionEnds ends(packet);
    GPMutexLock lock(mutex);
    record_ = findLocked(ends);
    if (record_) record_->retain();
}

HijackPacket::Found::~Found() {
    if (!record_) return;
    GPMutexLock lock(mutex);
    record_->release();
}

bool HijackPacket::resolve(const char* url, const char* redirect, int timeoutSeconds) {
    GPMutexLock lock(mutex);
    HijackPacket* record = table->oldestOpen(url);
    if (!record) {
        lock.unlock();
        if (Configuration::isLogLevel(64)) {
            logf("Hijack-resolve:false: target='%s' redirect='%s'", url, textOrNull(redirect));
        }
        return false;
    }

    // In this order: a packet whose check falls between the two stores passes, which is accepted.
    record->resolved_.store(true, std::memory_order_relaxed);
    if (redirect) record->redirect_.store(GPString::of(redirect), std::memory_order_release);
    if (timeoutSeconds > 0) {
        record->timeout_.store(static_cast<int>(timeoutSeconds * 1000000LL), std::memory_order_relaxed);
        record->timer_.restart();
    }
    table->resolved(record);
    lock.unlock();
    if (Configuration::isLogLevel(64)) {
        logf("Hijack-resolve:true: target='%s' redirect='%s' (timeout=%d)", url, textOrNull(redirect),
             timeoutSeconds);
    }
    return true;
}

bool HijackPacket::resolve(const char* url, const char* redirect) { return resolve(url, redirect, -1); }

void HijackPacket::remove(HijackPacket* record) {
    GPMutexLock lock(mutex);
    const unsigned removed = mark(record);
    if (!table->remove(record)) return;
    noteRecords();
    if (Configuration::isLogLevel(128)) {
        logf("--- removed 0x%x from hijackpackets; count=%d", removed, table->count());
    }
}

const char* HijackPacket::redirectURL() const {
    GPString* redirect = redirect_.load(std::memory_order_acquire);
    return redirect ? redirect->cstr() : nullptr;
}

const char* HijackPacket::URL() const { return url_->cstr(); }

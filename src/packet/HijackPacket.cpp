#include "packet/HijackPacket.h"

#include "config/Configuration.h"
#include "gp/GPList.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h"
#include "packet/TCPPacket.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr int plainLife = 30000000;
constexpr int tlsLife = 120000000;

// The records in order of creation, and the lock that guards the list and its cursor.
GPList* const list = new GPList;
GPMutex* const mutex = new GPMutex;

bool sameAddress(const in6_addr& a, const in6_addr& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

const char* textOrNull(const char* text) { return text ? text : "null"; }

unsigned mark(const HijackPacket* record) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(record));
}

} // namespace

// Both ends of a packet.
struct HijackPacket::Ends {
    explicit Ends(char* packet)
        : ipv6(TCPPacket::isVersionIPV6(packet)), hasPayload(TCPPacket::payloadSize(packet) > 0) {
        if (ipv6) {
            srcIpv6 = TCPPacket::srcIPAddressIpv6(packet, srcPort);
            dstIpv6 = TCPPacket::dstIPAddressIpv6(packet, dstPort);
        } else {
            src = TCPPacket::srcIPAddress(packet, srcPort);
            dst = TCPPacket::dstIPAddress(packet, dstPort);
        }
    }

    bool ipv6;
    unsigned src = 0;
    unsigned dst = 0;
    in6_addr srcIpv6{};
    in6_addr dstIpv6{};
    int srcPort = 0;
    int dstPort = 0;
    bool hasPayload;
};

HijackPacket::HijackPacket(char* packet, const char* url, bool https)
    : url_(new GPString(url)), https_(https), timeout_(https ? tlsLife : plainLife), timer_(new GPTimer) {
    const Ends ends(packet);
    srcAddress_ = ends.src;
    dstAddress_ = ends.dst;
    srcAddressIpv6_ = ends.srcIpv6;
    dstAddressIpv6_ = ends.dstIpv6;
    srcPort_ = ends.srcPort;
    dstPort_ = ends.dstPort;
    timer_->start();
}

HijackPacket::~HijackPacket() {
    url_->release();
    if (GPString* redirect = redirect_.load(std::memory_order_acquire)) redirect->release();
    timer_->release();
}

bool HijackPacket::create(char* packet, const char* url, bool https) {
    if (TCPPacket::payloadSize(packet) < 1) return false;
    // The creator's reference stays with the record; removal from the list drops it.
    auto* record = new HijackPacket(packet, url, https);

    GPMutexLock lock(mutex);
    list->addObject(record);
    if (Configuration::isLogLevel(128)) {
        logf("-++ added 0x%x to hijackpackets; (%s) count=%d", mark(record), url, list->count());
    }
    return true;
}

bool HijackPacket::isExpired() const { return timer_->elapsedTime() > getTimeout(); }

bool HijackPacket::matches(const Ends& ends) const {
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

HijackPacket* HijackPacket::findLocked(const Ends& ends) {
    for (list->firstObject(); list->currentObject(); list->nextObject()) {
        auto* record = static_cast<HijackPacket*>(list->currentObject());
        if (record->isExpired()) {
            if (Configuration::isLogLevel(128)) {
                logf("--- removed 0x%x object from hijackpackets; (%s) count=%d", mark(record), record->URL(),
                     list->count());
            }
            // The removal moves the cursor on, and the loop's step moves it once more: deliberately, the
            // record behind an expired one is not looked at in this walk.
            list->removeObject(record);
            record->release();
        } else if (record->matches(ends) && (record->https_ || ends.hasPayload)) {
            return record;
        }
    }
    return nullptr;
}

HijackPacket* HijackPacket::find(char* packet) {
    const Ends ends(packet);
    GPMutexLock lock(mutex);
    return findLocked(ends);
}

HijackPacket::Found::Found(char* packet) {
    const Ends ends(packet);
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
    HijackPacket* record = nullptr;
    for (list->firstObject(); list->currentObject(); list->nextObject()) {
        auto* candidate = static_cast<HijackPacket*>(list->currentObject());
        if (!candidate->isResolved() && candidate->url_->isEqual(url)) {
            record = candidate;
            break;
        }
    }
    if (!record) {
        lock.unlock();
        if (Configuration::isLogLevel(64)) {
            logf("Hijack-resolve:false: target='%s' redirect='%s'", url, textOrNull(redirect));
        }
        return false;
    }

    // In this order: a packet whose check falls between the two stores passes, which is accepted.
    record->resolved_.store(true, std::memory_order_relaxed);
    if (redirect) record->redirect_.store(new GPString(redirect), std::memory_order_release);
    if (timeoutSeconds > 0) {
        record->timeout_.store(static_cast<int>(timeoutSeconds * 1000000LL), std::memory_order_relaxed);
        record->timer_->restart();
    }
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
    if (list->indexOfObject(record) < 0) return;
    const unsigned removed = mark(record);
    list->removeObject(record);
    record->release();
    if (Configuration::isLogLevel(128)) {
        logf("--- removed 0x%x from hijackpackets; count=%d", removed, list->count());
    }
}

const char* HijackPacket::redirectURL() const {
    GPString* redirect = redirect_.load(std::memory_order_acquire);
    return redirect ? redirect->cstr() : nullptr;
}

const char* HijackPacket::URL() const { return url_->cstr(); }

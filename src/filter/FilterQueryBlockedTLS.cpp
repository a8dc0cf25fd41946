#include "config/Configuration.h"
#include "filter/FilterQuery.h"
#include "filter/SSLEntry.h"
#include "gp/GPList.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h" // IWYU pragma: keep (used by a template)
#include "gp/Owned.h"
#include "gp/ThreadSafety.h"
#include "packet/TCPPacket.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace {

// An entry blocks for 300 seconds inclusive.
constexpr long long endOfLife = 300000001;

// The tables, each with its own lock; no operation holds both.
GPMutex* const sslMutex = new GPMutex;
GPList* const sslList GUARDED_BY(sslMutex) = new GPList;
GPMutex* const sslMutexIpv6 = new GPMutex;
GPList* const sslListIpv6 GUARDED_BY(sslMutexIpv6) = new GPList;

// Whether the tables have ever had entries, stored with their locks held: until then packets need no lock.
std::atomic<bool> hasEntries{false};
std::atomic<bool> hasEntriesIpv6{false};

unsigned mark(const GPObject* entry) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(entry));
}

bool isSame(unsigned a, unsigned b) { return a == b; }
bool isSame(const in6_addr& a, const in6_addr& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Walks a table, which the log calls `name` and whose lock the caller holds, up to the first live entry for
// one of the two addresses. Drops the entries whose time is over; the walk then skips the entry
// behind, since the removal has already moved the cursor.
template <class Entry, class Address>
Entry* findBlocked(GPList* list, const char* name, const Address& src, const Address& dst) {
    const long long now = GPTimer::getClockTime();
    for (list->firstObject(); list->currentObject(); list->nextObject()) {
        auto* entry = static_cast<Entry*>(list->currentObject());
        if (now - entry->timer->startedTime() < endOfLife) {
            if (isSame(entry->address, src) || isSame(entry->address, dst)) return entry;
            continue;
        }
        const unsigned removed = mark(entry);
        list->removeObject(entry);
        entry->release();
        if (Configuration::isLogLevel(128))
            logf("--- removed 0x%x from %s; count=%d", removed, name, list->count());
    }
    return nullptr;
}

} // namespace

void FilterQuery::addToSSL(unsigned address) {
    // The creator's reference stays with the entry; removal from the table drops it.
    auto* entry = new SSLEntry(address);
    GPMutexLock lock(sslMutex);
    sslList->addObject(entry);
    hasEntries.store(true, std::memory_order_release);
    if (Configuration::isLogLevel(128)) {
        logf("-++ added 0x%x to SSLcache; count=%d", mark(entry), sslList->count());
    }
}

void FilterQuery::addToSSLIpv6(in6_addr address) {
    auto* entry = new SSLEntryIpv6(address);
    GPMutexLock lock(sslMutexIpv6);
    sslListIpv6->addObject(entry);
    hasEntriesIpv6.store(true, std::memory_order_release);
    if (Configuration::isLogLevel(128)) {
        logf("-++ added 0x%x to SSLcache Ipv6; count=%d", mark(entry), sslListIpv6->count());
    }
}

bool FilterQuery::isBlockedSSL(char* packet) {
    if (!hasEntries.load(std::memory_order_acquire)) return false;
    int port;
    const unsigned src = TCPPacket::srcIPAddress(packet, port);
    const unsigned dst = TCPPacket::dstIPAddress(packet, port);

    GPMutexLock lock(sslMutex);
    const auto* entry = findBlocked<SSLEntry>(sslList, "SSLcache", src, dst);
    if (!entry) return false;
    const unsigned blocked = entry->address;
    lock.unlock();

    if (Configuration::isLogLevel(16)) {
        logf("SSL is BLOCKED: SSLcache_entry=0x%x entry_addr=%ld src=%ld dst=%ld", mark(entry),
             static_cast<long>(blocked), static_cast<long>(src), static_cast<long>(dst));
    }
    TCPPacket::logPacket(packet);
    return true;
}

bool FilterQuery::isBlockedSSLIpv6(char* packet) {
    if (!hasEntriesIpv6.load(std::memory_order_acquire)) return false;
    int port;
    const in6_addr src = TCPPacket::srcIPAddressIpv6(packet, port);
    const in6_addr dst = TCPPacket::dstIPAddressIpv6(packet, port);

    GPMutexLock lock(sslMutexIpv6);
    const auto* entry = findBlocked<SSLEntryIpv6>(sslListIpv6, "SSLcache Ipv6", src, dst);
    if (!entry) return false;
    const in6_addr blocked = entry->address;
    lock.unlock();

    if (Configuration::isLogLevel(16)) {
        auto blockedText = Owned<GPString>::adopt(TCPPacket::formatIpAddressIpv6(blocked));
        auto srcText = Owned<GPString>::adopt(TCPPacket::formatIpAddressIpv6(src));
        auto dstText = Owned<GPString>::adopt(TCPPacket::formatIpAddressIpv6(dst));
        logf("SSL Ipv6 is BLOCKED: SSLcache_entry=0x%x entry_addr=%s src=%s dst=%s", mark(entry),
             blockedText->cstr(), srcText->cstr(), dstText->cstr());
    }
    TCPPacket::logPacket(packet);
    return true;
}

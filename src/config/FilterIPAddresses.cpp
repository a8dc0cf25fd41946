#include "config/FilterIPAddresses.h"

#include "config/Configuration.h"
#include "config/FilterServer.h"
#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "gp/ThreadSafety.h"
#include "packet/TCPPacket.h"
#include "platform/Clock.h"

namespace {

constexpr unsigned sleepWithMissing = 10; // seconds
constexpr unsigned sleepWithAll = 600;

// Serialises build, refresh and swap; held across name look-ups.
GPMutex* const buildmutex = new GPMutex;

std::atomic<FilterIPAddresses*> ipAddressesCurrent{nullptr};
std::atomic<FilterIPAddresses*> ipAddressesPrev GUARDED_BY(buildmutex){nullptr};
std::atomic<bool> rebuildAddresses{false};
std::atomic<bool> rebuildThreadActive{false};

// How many readers are between the read of `ipAddressesCurrent` and their retain. The previous snapshot
// covers that time unless two swaps fall into it; a snapshot that is due meanwhile waits in `retiredSnapshots`
// for a later swap.
std::atomic<int> readersTakingSnapshot{0};
GPArray* const retiredSnapshots GUARDED_BY(buildmutex) = new GPArray;

void retire(FilterIPAddresses* snapshot) REQUIRES(buildmutex) {
    if (snapshot) {
        retiredSnapshots->addObject(snapshot);
        snapshot->release();
    }
    if (readersTakingSnapshot.load() == 0) retiredSnapshots->removeAllObjects();
}

// Puts a new snapshot in force and keeps the one before it for one more generation.
void install(FilterIPAddresses* built) REQUIRES(buildmutex) {
    FilterIPAddresses* beforeLast = ipAddressesPrev.load();
    ipAddressesPrev = ipAddressesCurrent.load();
    ipAddressesCurrent = built;
    retire(beforeLast);
}

} // namespace

// Their lock is known in this file alone.
FilterIPAddresses* buildIPaddresses() REQUIRES(buildmutex);
void refreshServerAddresses(FilterIPAddresses* snapshot) REQUIRES(buildmutex);

namespace {

unsigned pauseOfMonitor() {
    // A rebuild task may swap meanwhile.
    auto current = Owned<FilterIPAddresses>::adopt(FilterIPAddresses::getCurrentIPAddresses());
    return current && current->isMissingIPs() ? sleepWithMissing : sleepWithAll;
}

// One pass of the manager: rebuilds if that is wanted, else looks up what is missing.
void monitorPass() {
    rebuildThreadActive = true;
    GPMutexLock lock(buildmutex);
    if (rebuildAddresses) {
        rebuildAddresses = false;
        FilterIPAddresses* built = buildIPaddresses();
        // Also takes away a notice that came during the build. If it changed the list behind the build's reading,
        // the change is first seen by the build of the next notice.
        rebuildAddresses = false;
        install(built);
    } else {
        refreshServerAddresses(ipAddressesCurrent);
    }
    rebuildThreadActive = false;
}

void* addressesMonitorThread(void*) {
    {
        GPMutexLock lock(buildmutex);
        // A snapshot that a rebuild task installed before is forgotten here, not released: a reader may be
        // about to retain it.
        ipAddressesCurrent = buildIPaddresses();
    }
    for (;;) {
        platform::clock().sleepSeconds(pauseOfMonitor());
        monitorPass();
    }
    return nullptr;
}

// One pass of the rebuild task; whether every server has an address after it.
bool rebuildPass() {
    GPMutexLock lock(buildmutex);
    rebuildThreadActive = true;
    if (rebuildAddresses) {
        rebuildAddresses = false;
        if (Configuration::isVerbose()) logs("Recreating IP address references...");
        install(buildIPaddresses());
    } else {
        if (Configuration::isVerbose()) logs("Checking IP address references...");
        refreshServerAddresses(ipAddressesCurrent);
    }
    rebuildThreadActive = false;
    FilterIPAddresses* current = ipAddressesCurrent;
    return current && !current->isMissingIPs();
}

// Works at once, then after 1, 2, 3 ... seconds until nothing is missing; a notice starts the series again.
void* rebuildAddressesThread(void*) {
    if (rebuildThreadActive) return nullptr;
    unsigned delay = 0;
    do {
        if (delay == 0 || rebuildAddresses) {
            delay = 1;
        } else {
            platform::clock().sleepSeconds(delay);
            ++delay;
        }
    } while (!rebuildPass());
    return nullptr;
}

unsigned shortAddress(FilterIPAddresses* snapshot) {
    // The log shows the low 32 bits.
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(snapshot));
}

// Looks one server up and keeps the answer; 0 without one.
unsigned resolveServer(FilterServer* server) {
    const unsigned address = TCPPacket::resolve(server->getUrl());
    if (address != 0) server->setIPAddr(address);
    return address;
}

} // namespace

FilterIPAddresses::FilterIPAddresses() : mutex_(new GPMutex) {}

FilterIPAddresses::~FilterIPAddresses() {
    delete[] addresses;
    mutex_->release();
}

FilterIPAddresses* FilterIPAddresses::getCurrentIPAddresses() {
    readersTakingSnapshot.fetch_add(1);
    FilterIPAddresses* current = ipAddressesCurrent;
    if (current) current->retain();
    readersTakingSnapshot.fetch_sub(1);
    return current;
}

void FilterIPAddresses::startIPAddressManager() {
    GPThread::taskOnBackground(addressesMonitorThread, nullptr);
}

void FilterIPAddresses::notifyIPchanges() {
    rebuildAddresses = true;
    if (!rebuildThreadActive) GPThread::taskOnBackground(rebuildAddressesThread, nullptr);
}

void FilterIPAddresses::setMissingIPs() { missingIPs_ = unresolvedCount_ > 0; }

GPObject* FilterIPAddresses::retain() {
    GPMutexLock lock(mutex_);
    retainonly();
    return this;
}

int FilterIPAddresses::release() {
    int left;
    {
        GPMutexLock lock(mutex_);
        left = releaseonly();
    }
    // Only the thread that saw the last reference go comes past here, so one thread deletes, outside the lock.
    if (left != lastReferenceGone) return left;
    left = releaseonly();
    if (left == destroyedMark) delete this;
    return left;
}

void FilterIPAddresses::debugDumpIPAddresses(FilterIPAddresses* snapshot) {
    auto line = Owned<GPString>::adopt(
        GPString::format("IPAddresses 0x%x missing=%s: Servers(%d):", shortAddress(snapshot),
                         snapshot->isMissingIPs() ? "yes" : "no", snapshot->count));
    for (int i = 0; i < snapshot->count; ++i)
        line->appendFormat("0x%x;", snapshot->addresses[i].load(std::memory_order_relaxed));
    logf("--- %s ---", line->cstr());
}

FilterIPAddresses* buildIPaddresses() {
    auto* built = new FilterIPAddresses;
    auto servers = Owned<GPArray>::adopt(Configuration::serverNames());
    // Read once: the list can grow in place during the look-ups.
    built->count = servers->count();
    if (built->count > 0) built->addresses = new std::atomic<std::uint32_t>[built->count]();
    for (int i = 0; i < built->count; ++i) {
        auto* server = static_cast<FilterServer*>(servers->objectAtIndex(i));
        unsigned address = resolveServer(server);
        // The last good address outlives a failed look-up.
        if (address == 0) address = server->getIPAddr();
        built->addresses[i] = address;
        if (address != 0) continue;
        ++built->unresolvedCount_;
        if (Configuration::isVerbose()) logf("unable to resolve IP for server %s (%d)", server->getUrl(), i);
    }
    built->setMissingIPs();
    if (Configuration::isVerbose()) {
        logf("Resolved IP addresses in %x (servers:%d unresolved:%d)", shortAddress(built), built->count,
             built->unresolvedCount_.load());
        FilterIPAddresses::debugDumpIPAddresses(built);
    }
    return built;
}

void refreshServerAddresses(FilterIPAddresses* snapshot) {
    if (!snapshot) return;
    const bool verbose = Configuration::isVerbose();
    if (verbose) logf("Refreshing IP addresses %x", shortAddress(snapshot));
    if (snapshot->unresolvedCount_ > 0) {
        auto servers = Owned<GPArray>::adopt(Configuration::serverNames());
        int missing = 0;
        for (int i = 0; i < snapshot->count; ++i) {
            auto* server = static_cast<FilterServer*>(servers->objectAtIndex(i));
            // The list may have become shorter than the snapshot; what it lacks stays as it is.
            const unsigned address = server ? resolveServer(server) : 0;
            if (address != 0) snapshot->addresses[i] = address;
            if (snapshot->addresses[i] != 0) continue;
            ++missing;
            if (verbose && server) logf("still unable to resolve IP for server %s (%d)", server->getUrl(), i);
        }
        snapshot->unresolvedCount_ = missing;
    }
    snapshot->setMissingIPs();
    if (!verbose) return;
    logf("Refreshed IP addresses (servers:%d unresolved:%d)", snapshot->count,
         snapshot->unresolvedCount_.load());
    FilterIPAddresses::debugDumpIPAddresses(snapshot);
}

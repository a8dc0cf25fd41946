#pragma once

// A snapshot of the filter servers' IPv4 addresses, so that the packet path can tell server traffic without a
// look-up. Built in the background by the manager thread and by the rebuild task; readers take the current
// one with getCurrentIPAddresses, look at `count` and `addresses`, and release it. Reference counting is safe
// on any thread. A refresh can fill an entry in while a reader looks.

#include "gp/GPObject.h"

#include <atomic>
#include <cstdint>

class GPMutex;

class FilterIPAddresses : public GPObject {
    friend FilterIPAddresses* buildIPaddresses();
    friend void refreshServerAddresses(FilterIPAddresses* snapshot);

    std::atomic<std::int32_t> unresolvedCount_{0};
    std::atomic<bool> missingIPs_{true};
    GPMutex* mutex_;

public:
    // Number of entries.
    std::int32_t count = 0;

    // One address for each server in list order, in host order; 0 is unresolved. Null with no entries.
    std::atomic<std::uint32_t>* addresses = nullptr;

    FilterIPAddresses();
    ~FilterIPAddresses() override;

    // The current snapshot with a reference for the caller; null until the manager's first build. No lock
    // beyond the count's own, no allocation.
    static FilterIPAddresses* getCurrentIPAddresses();

    // Starts the manager thread; once, at daemon start.
    static void startIPAddressManager();

    // The server list or the network changed: a new snapshot is built soon.
    static void notifyIPchanges();

    // Whether at least one address is missing.
    bool isMissingIPs() const { return missingIPs_.load(std::memory_order_relaxed); }

    // Takes the mark over from the count of unresolved entries.
    void setMissingIPs();

    // Logs the entries in one line.
    static void debugDumpIPAddresses(FilterIPAddresses* snapshot);

    GPObject* retain() override;
    int release() override;
};

// Makes a new snapshot of the present server list, with a reference for the caller. Blocks in name look-ups;
// the caller holds the build lock.
FilterIPAddresses* buildIPaddresses();

// Looks up again what a snapshot lacks, in place. Null is allowed. Blocks; the caller holds the build lock.
void refreshServerAddresses(FilterIPAddresses* snapshot);

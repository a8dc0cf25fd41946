#pragma once

// What DNSPacket's source files share and nobody else sees. One record for the process; the locks are made
// before main and never torn down.

#include "gp/ThreadSafety.h"

#include <atomic>

class GPArray;
class GPMap;
class GPMutex;

struct DNSPacketState {
    // Host asked for -> redirect host. Values are static strings. Null until first needed.
    GPMap* map GUARDED_BY(mutex) = nullptr;

    // Redirect host -> its IPv4 address as dotted text. Changed with `mutex` held too; isSslIp walks it under
    // `ipv4Mutex` alone.
    GPMap* mapIpv4 GUARDED_BY(ipv4Mutex) = nullptr;

    // Read without a lock by any thread.
    std::atomic<unsigned> noSSLIP{0}; // network order
    std::atomic<bool> gotSSLIP{false};

    GPMutex* const mutex; // both tables, the hosts file and its companions

    // Held only while mapIpv4 is touched, so that a table never goes under a walk of isSslIp. Taken last.
    GPMutex* const ipv4Mutex;
};

extern DNSPacketState dnsState;

// Who sent a list of new rows; decides what is logged.
enum class RemapSource { dom, api };

// Replaces the tables and the pinned hosts by the rows in `hosts`, elements with "HOST,REDIRECT HOST" as
// their text. The old ones go with the first row whose redirect host resolves, or at once for an empty list.
void replaceTables(GPArray* hosts, RemapSource source) EXCLUDES(dnsState.mutex);

// DNSPacket::removeHostsFile for callers that hold `mutex`.
void removePinnedHosts() REQUIRES(dnsState.mutex);

// The operations of DNSPacket.h that want `mutex` held.
void initMap() REQUIRES(dnsState.mutex);
void clearMaps() REQUIRES(dnsState.mutex);

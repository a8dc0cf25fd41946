#pragma once

// What DNSPacket's source files share and nobody else sees. One record for the process; the locks are made
// before main and never torn down.

#include <atomic>

class GPArray;
class GPMap;
class GPMutex;

struct DNSPacketState {
    // Under `mutex`; values are static strings. Null until first needed.
    GPMap* map = nullptr; // host asked for -> redirect host

    // Under `mutex` and `ipv4Mutex`; isSslIp walks it under the latter alone.
    GPMap* mapIpv4 = nullptr; // redirect host -> its IPv4 address as dotted text

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
void replaceTables(GPArray* hosts, RemapSource source);

// DNSPacket::removeHostsFile for callers that hold `mutex`.
void removePinnedHosts();

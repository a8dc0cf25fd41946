#pragma once

// From a URL found in a packet to the answer on its pending record, without letting the packet path wait:
// `send` queues, a pool thread asks the policy agent and resolves the record. Also the addresses of the
// filter servers, the run-time switch that suspends outbound filtering, the lock around changes of the
// server list, and the tables of blocked TLS addresses.
//
// Static operations over process-wide state that is made before main and never torn down. Any thread, where
// nothing else is said.

#include "gp/ThreadSafety.h"

#include <netinet/in.h>

class FilterIPAddresses;
class GPMutex;
class GPString;

// One query on its way to the pool.
struct THREADPARAMS {
    char* url;    // own copy; freed by filterThread
    bool https;   // the URL came from a TLS ClientHello
    void* result; // the caller's result record, gone by the time the pool thread runs: never read
};

class FilterQuery {
public:
    // How many queries can be with the agent at a time; the others wait in a queue without bound.
    static constexpr int queryThreads = 30;

    // Queues the query of a copy of `url` and returns at once. Called on a listener thread. In balanced mode
    // the current server moves on.
    static void send(const char* url, bool https, void* result);

    // The pool function. Takes over a THREADPARAMS and frees it with its URL.
    static void filterThread(void* params);

    // Asks the agent about one URL, again for as long as it says so, and resolves the record. Blocks until then,
    // without limit. `attempt` is not read. The params stay the caller's.
    static void OstCommFilterQueryThread(THREADPARAMS* params, int attempt);

    // Whether `address` (host order) is one of the filter servers'. A null snapshot means the current one; a
    // given one stays the caller's.
    static bool isFilteringIP(FilterIPAddresses* addresses, unsigned address);

    // The run-time switch for outbound packets. It falls back to false 10 minutes after its last change.
    static void setFilteringDisabled(bool value);
    static bool isFilteringDisabled();

    // Whether the URL, without its query string, has a live entry in the query cache. Nothing fills the
    // cache. Null is allowed.
    static bool queryCache(GPString* url);

    // The lock around every change of the server list. Not recursive.
    static void lockServers() ACQUIRE(mutex);
    static void unlockServers() RELEASE(mutex);

    // Blocks an IPv4 address (host order) for five minutes. A second call adds a second entry.
    static void addToSSL(unsigned address);

    // The same for an IPv6 address.
    static void addToSSLIpv6(in6_addr address);

    // Whether an end of this usable IPv4 packet is blocked; a hit is logged at any level. The walk drops the
    // entries whose time is over. Allocates nothing without a hit.
    static bool isBlockedSSL(char* packet);

    // The same for an IPv6 packet.
    static bool isBlockedSSLIpv6(char* packet);

private:
    static GPMutex* const mutex; // the servers, and the query cache
};

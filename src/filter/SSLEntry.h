#pragma once

// One blocked address with its age: SSLEntry for IPv4, SSLEntryIpv6 for IPv6. Entries belong to the tables of
// FilterQuery and are touched under the table's lock alone.

#include "gp/GPObject.h"

#include <netinet/in.h>

class GPTimer;

class SSLEntry : public GPObject {
public:
    // Starts the entry's time. `blocked` is in host order.
    explicit SSLEntry(unsigned blocked);
    ~SSLEntry() override;

    GPTimer* timer;
    unsigned address;
};

class SSLEntryIpv6 : public GPObject {
public:
    // Starts the entry's time.
    explicit SSLEntryIpv6(const in6_addr& blocked);
    ~SSLEntryIpv6() override;

    GPTimer* timer;
    in6_addr address;
};

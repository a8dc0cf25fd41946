#pragma once

// Both ends of a packet, and so of its connection: addresses and ports of source and destination. The fields of
// the version that the packet does not have are zero.

#include <netinet/in.h>

struct ConnectionEnds {
    // Reads a packet that passed TCPPacket::isUsablePacket.
    explicit ConnectionEnds(char* packet);

    // Whether this is an IPv6 packet from and to the address of zeros.
    bool isIpv6OfZeros() const;

    bool ipv6;
    bool hasPayload;
    unsigned src = 0;
    unsigned dst = 0;
    in6_addr srcIpv6{};
    in6_addr dstIpv6{};
    int srcPort = 0;
    int dstPort = 0;
};

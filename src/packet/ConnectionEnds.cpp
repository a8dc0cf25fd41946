#include "packet/ConnectionEnds.h"

#include "packet/TCPPacket.h"

#include <cstring>

ConnectionEnds::ConnectionEnds(char* packet)
    : ipv6(TCPPacket::isVersionIPV6(packet)), hasPayload(TCPPacket::payloadSize(packet) > 0) {
    if (ipv6) {
        srcIpv6 = TCPPacket::srcIPAddressIpv6(packet, srcPort);
        dstIpv6 = TCPPacket::dstIPAddressIpv6(packet, dstPort);
    } else {
        src = TCPPacket::srcIPAddress(packet, srcPort);
        dst = TCPPacket::dstIPAddress(packet, dstPort);
    }
}

bool ConnectionEnds::isIpv6OfZeros() const {
    constexpr in6_addr zeros{};
    return ipv6 && std::memcmp(&srcIpv6, &zeros, sizeof zeros) == 0 &&
           std::memcmp(&dstIpv6, &zeros, sizeof zeros) == 0;
}

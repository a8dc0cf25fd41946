// Every operation on one packet, over any bytes in a receive buffer.

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "packet/TCPPacket.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // On the heap, so that a step out of the buffer is seen.
    std::vector<char> buffer(TCPPacket::receiveBufferSize);
    char* packet = buffer.data() + TCPPacket::recordHeaderSize;
    std::memcpy(packet, data, std::min<std::size_t>(size, 65535 - TCPPacket::recordHeaderSize));

    TCPPacket::ipHeaderSize(packet);
    TCPPacket::isProtocolTCP(packet);
    TCPPacket::isProtocolUDP(packet);
    if (!TCPPacket::isUsablePacket(packet)) return 0;

    int port = 0;
    TCPPacket::srcIPAddress(packet, port);
    TCPPacket::dstIPAddress(packet, port);
    TCPPacket::srcIPAddressIpv6(packet, port);
    TCPPacket::dstIPAddressIpv6(packet, port);
    TCPPacket::redirectPacket(packet, "http://localhost:6543/");
    const auto https = Owned<GPString>::adopt(TCPPacket::httpsURL(packet));
    const auto http = Owned<GPString>::adopt(TCPPacket::httpURL(packet));
    return 0;
}

// The decision on a DNS reply, over any bytes in a receive buffer.

#include "dns/DNSPacket.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // On the heap, so that a step out of the buffer is seen.
    std::vector<char> buffer(TCPPacket::receiveBufferSize);
    char* packet = buffer.data() + TCPPacket::recordHeaderSize;
    std::memcpy(packet, data, std::min<std::size_t>(size, 65535 - TCPPacket::recordHeaderSize));
    if (!DNSPacket::isUsableDNSPacket(packet)) return 0;

    const std::vector<char> before = buffer;
    sysctl_result result{};
    const bool redirected = DNSPacket::remap(packet, &result);
    if (redirected != DNSPacket::remap(packet, nullptr)) std::abort();
    if (redirected != (result.redirectUrl[0] != 0)) std::abort();
    if (buffer != before) std::abort();
    return 0;
}

#include "lab/divert/TcpSegment.h"

#include "platform/ByteOrder.h"

namespace lab {
namespace {

constexpr std::size_t tcpHeaderSize = 20;
constexpr int tcp = 6;
constexpr std::uint16_t window = 0xffff;

// Where the TCP header begins. Extension headers stand in front of no packet of these networks.
std::size_t transportOffset(const std::vector<char>& bytes) {
    return (bytes[0] & 0xf0) == 0x40 ? std::size_t{bytes[0] & 0x0fu} * 4 : 40;
}

std::uint32_t sumOf(const std::string& bytes) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::uint32_t byte = static_cast<unsigned char>(bytes[i]);
        sum += i % 2 == 0 ? byte << 8 : byte;
    }
    return sum;
}

std::uint16_t checksum(const Endpoint& from, const Endpoint& to, const std::string& segment) {
    std::uint32_t sum = sumOf(from.address) + sumOf(to.address) + sumOf(segment);
    sum += tcp + static_cast<std::uint32_t>(segment.size());
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

std::string ipHeader(const Endpoint& from, const Endpoint& to, std::size_t payload) {
    const bool ipv6 = from.address.size() == 16;
    std::string header(ipv6 ? 8 : 12, '\0');
    if (ipv6) {
        header[0] = 0x60;
        platform::writeBig16(&header[4], static_cast<std::uint16_t>(payload));
        header[6] = tcp;
        header[7] = 64;
    } else {
        header[0] = 0x45;
        platform::writeBig16(&header[2], static_cast<std::uint16_t>(payload + 20));
        header[8] = 64;
        header[9] = tcp; // the kernel writes the checksum
    }
    return header + from.address + to.address;
}

} // namespace

std::optional<TcpSegment> tcpSegmentOf(const CapturedPacket& packet) {
    const std::size_t offset = transportOffset(packet.bytes);
    if (packet.protocol != tcp || packet.bytes.size() < offset + tcpHeaderSize) return {};
    const char* header = packet.bytes.data() + offset;
    const std::size_t dataOffset = static_cast<std::size_t>(static_cast<unsigned char>(header[12]) >> 4) * 4;
    if (packet.bytes.size() < offset + dataOffset) return {};
    TcpSegment segment;
    segment.sequence = platform::readBig32(header + 4);
    segment.acknowledged = platform::readBig32(header + 8);
    segment.payload = static_cast<std::uint32_t>(packet.bytes.size() - offset - dataOffset);
    segment.length = segment.payload + (packet.syn ? 1 : 0) + (packet.fin ? 1 : 0);
    return segment;
}

std::vector<char> tcpPacket(const Endpoint& from, const Endpoint& to, std::uint32_t sequence,
                            std::uint32_t acknowledged, unsigned flags, const std::string& payload) {
    std::string segment(tcpHeaderSize, '\0');
    platform::writeBig16(&segment[0], static_cast<std::uint16_t>(from.port));
    platform::writeBig16(&segment[2], static_cast<std::uint16_t>(to.port));
    platform::writeBig32(&segment[4], sequence);
    platform::writeBig32(&segment[8], acknowledged);
    segment[12] = tcpHeaderSize / 4 << 4;
    segment[13] = static_cast<char>(flags);
    platform::writeBig16(&segment[14], window);
    segment += payload;
    platform::writeBig16(&segment[16], checksum(from, to, segment));
    const std::string whole = ipHeader(from, to, segment.size()) + segment;
    return {whole.begin(), whole.end()};
}

} // namespace lab

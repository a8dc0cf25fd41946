#pragma once

// Builds IP packets as they are on the wire, inside a buffer like the listener's.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

// One packet record in a receive buffer: 24 bytes of header, the packet, and the room behind it, all zero.
class PacketBuffer {
public:
    PacketBuffer(std::uint64_t id, const std::string& packet);

    // The first byte of the IP header.
    char* packet();

    // The packet's bytes as they are now, without the room behind.
    std::string bytes() const;

    // The record as the extension sends it: header and packet.
    std::string record() const;

private:
    std::vector<char> buffer_;
    std::size_t size_;
};

class PacketBuilder {
public:
    // A TCP packet without payload from 10.0.0.2:50000 to 93.184.216.34:80, or from [2001:db8::2]:50000 to
    // [2001:db8::22]:80.
    static PacketBuilder ipv4();
    static PacketBuilder ipv6();

    // An end of the packet; the address in printed form.
    PacketBuilder& from(const std::string& address, int port);
    PacketBuilder& to(const std::string& address, int port);

    // Swaps the ends, as an answer has them.
    PacketBuilder& reversed();

    // Makes it a UDP packet.
    PacketBuilder& udp();

    // The protocol number behind the IP headers, whatever header really follows.
    PacketBuilder& protocol(int number);

    PacketBuilder& payload(const std::string& bytes);

    // Options in 32-bit words, all zero.
    PacketBuilder& ipOptions(int words);
    PacketBuilder& tcpOptions(int words);

    // Adds an IPv6 extension header: its number, and its length byte by the rule of that header.
    PacketBuilder& extension(int header, int lengthByte);

    // The size that the packet claims, as TCPPacket::packetSize reads it. Otherwise the length field is
    // right in network order, as senders write it.
    PacketBuilder& sizeReadAs(int size);

    // Overwrites bytes of the finished packet.
    PacketBuilder& put(int offset, const std::string& bytes);

    // The packet id of the record.
    PacketBuilder& id(std::uint64_t packetId);

    PacketBuffer build() const;
    std::string bytes() const;

private:
    struct Extension {
        int header;
        int lengthByte;
    };

    explicit PacketBuilder(bool ipv6);

    std::string ipHeader(std::size_t behind) const;
    std::string extensionHeaders() const;
    std::string transportHeader() const;
    int transportNumber() const;

    bool ipv6_;
    bool udp_ = false;
    int protocol_ = -1;
    int ipOptions_ = 0;
    int tcpOptions_ = 0;
    int sizeReadAs_ = -1;
    int sourcePort_ = 50000;
    int destinationPort_ = 80;
    std::uint64_t id_ = 1;
    std::string source_;
    std::string destination_;
    std::string payload_;
    std::vector<Extension> extensions_;
    std::vector<std::pair<int, std::string>> overwritten_;
};

// The text of a GET request, by default for http://www.example.org/.
std::string getRequest(const std::string& path = "/", const std::string& host = "www.example.org");

} // namespace testsupport

#pragma once

// What one raw IP packet says: version, protocol, addresses, ports, sizes, and the URL that it asks for.
//
// No instances and no state: every operation works on the caller's buffer alone, so the two listeners call
// them at the same time on buffers of their own. Length fields are trusted as they stand and the received
// size bounds nothing; therefore every packet handed in starts a region of `packetRoom` bytes, which no
// operation leaves. Most operations expect a packet that passed isUsablePacket.

#include <netinet/in.h>

class GPString;

class TCPPacket {
public:
    // Bytes that belong to the caller's buffer from the first byte of the IP header on: the largest size that
    // packetSize can give (40 + 65,535), the zero byte that payload writes behind it, and some to spare.
    static constexpr int packetRoom = 65664;

    // The header of a packet record, in front of the IP packet.
    static constexpr int recordHeaderSize = 24;

    // What a buffer for one packet record must hold, so that its packet has packetRoom.
    static constexpr int receiveBufferSize = recordHeaderSize + packetRoom;

    static bool isVersionIPV6(char* packet);

    // Size of the IP header in bytes, extension headers included.
    static int ipHeaderSize(char* packet);

    // Size of the TCP header in bytes.
    static int tcpHeaderSize(char* packet);

    static bool isProtocolTCP(char* packet);
    static bool isProtocolUDP(char* packet);

    // Size of the whole packet by its length field. An IPv6 length is taken without a byte swap on purpose;
    // every test of sizes in the system stands on that figure.
    static int packetSize(char* packet);

    // packetSize without the headers; can be zero or negative.
    static int payloadSize(char* packet);

    // The first byte behind the TCP header. Writes a zero byte behind the payload, the one change that any
    // operation makes to a packet.
    static char* payload(char* packet);

    // Whether the other operations may work on the packet: IPv4 or IPv6, TCP, headers within its size. False
    // for null.
    static bool isUsablePacket(char* packet);

    // An IPv4 address in host order; the port, in host order, goes to `port`.
    static unsigned srcIPAddress(char* packet, int& port);
    static unsigned dstIPAddress(char* packet, int& port);

    // An IPv6 address as on the wire; the port, in host order, goes to `port`.
    static in6_addr srcIPAddressIpv6(char* packet, int& port);
    static in6_addr dstIPAddressIpv6(char* packet, int& port);

    // A host-order address in dotted form. Owned by the caller.
    static GPString* formatIpAddress(unsigned address);

    // All 16 bytes in hexadecimal pairs of bytes, in brackets, never shortened. Owned by the caller.
    static GPString* formatIpAddressIpv6(in6_addr address);

    // The URL of a plain GET request that this packet holds whole, or null. Owned by the caller.
    static GPString* httpURL(char* packet);

    // The URL of the server that a TLS ClientHello names; the bare destination address for an old hello that
    // cannot name one; null for anything else. Owned by the caller.
    static GPString* httpsURL(char* packet);

    // Whether a redirect to `url` is strictly shorter than the packet's payload. Leaves the packet alone.
    static bool redirectPacket(char* packet, const char* url);

    // Logs one line on ends and protocol, at any log level. Reads IPv4 positions whatever the version.
    static void logPacket(char* packet);

    // The first IPv4 address of a host name in host order, or 0. Blocks for as long as the resolver takes.
    static unsigned resolve(const char* host);

    // The internet checksum of `length` bytes.
    static unsigned short in_cksum(unsigned short* words, int length);
};

// The transport protocol number of a packet: 6 is TCP, 17 is UDP.
int getIpProtocol(char* packet);

// Where the server name of a TLS ClientHello lies, from the first byte of its record on.
struct ServerNamePlace {
    static constexpr int nowhere = -1;
    static constexpr int noPlace = 0; // in an old hello, which has none for it

    int offset; // of the name, or one of those
    int length;
};

// Finds the server name of less than `capacity` bytes in a TLS ClientHello of `size` bytes.
ServerNamePlace findServerName(const unsigned char* data, int size, int capacity);

// Reads the server name out of a TLS ClientHello of `size` bytes into `out`, which has room for `capacity`
// bytes with the ending zero. True with a name in `out`; true with `out` left alone for an old hello without
// a place for a name; false for anything else.
bool sslDomain(const unsigned char* data, int size, char* out, int capacity);

#include "packet/TCPPacket.h"

#include "config/Configuration.h"
#include "gp/CycleWatch.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/ByteOrder.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// Positions in an IPv4 or IPv6 header.
constexpr int totalLengthV4 = 2;
constexpr int protocolV4 = 9;
constexpr int sourceV4 = 12;
constexpr int destinationV4 = 16;
constexpr int payloadLengthV6 = 4;
constexpr int nextHeaderV6 = 6;
constexpr int sourceV6 = 8;
constexpr int destinationV6 = 24;
constexpr int fixedHeaderV6 = 40;

// Positions in a TCP header, and the size of one without options.
constexpr int sourcePort = 0;
constexpr int destinationPort = 2;
constexpr int dataOffset = 12;
constexpr int bareTcpHeader = 20;

constexpr int protocolTCP = 6;
constexpr int protocolUDP = 17;

// IPv6 extension headers, by their next-header numbers.
constexpr int hopByHop = 0;
constexpr int routing = 43;
constexpr int fragment = 44;
constexpr int authentication = 51;
constexpr int noNextHeader = 59;
constexpr int destinationOptions = 60;

constexpr int serverNameCapacity = 255;

// What the kernel extension answers a plain request with.
constexpr char redirectText[] = "HTTP/1.1 302 Found\r\nLocation: %s\r\nConnection: close\r\n\r\n";

int byteAt(const char* packet, int offset) { return static_cast<unsigned char>(packet[offset]); }

// The length byte of an extension header counts as signed on purpose: 128 and above lead backwards.
int signedByteAt(const char* packet, int offset) { return static_cast<signed char>(packet[offset]); }

bool isVersion4(const char* packet) { return (packet[0] & 0xf0) == 0x40; }

// Where the IP headers of a packet end: the offset there and the protocol that follows.
struct HeadersEnd {
    int offset;
    int protocol;
};

// What a chain of extensions without an end inside the buffer counts as: no transport protocol at all.
constexpr HeadersEnd brokenChain = {fixedHeaderV6, noNextHeader};

bool isExtension(int header) {
    return header == hopByHop || header == routing || header == fragment || header == authentication ||
           header == destinationOptions;
}

bool holdsExtension(int offset) { return offset >= 0 && offset + 1 < TCPPacket::packetRoom; }

bool holdsTransport(int offset) { return offset >= 0 && offset + bareTcpHeader <= TCPPacket::packetRoom; }

HeadersEnd walkExtensions(const char* packet) {
    int next = byteAt(packet, nextHeaderV6);
    int offset = fixedHeaderV6;
    CycleWatch<std::pair<int, int>> watch({-1, -1});
    for (;;) {
        if (watch.isRepeated({offset, next})) return brokenChain;
        bool advanced = false;
        if (next == hopByHop || next == routing || next == destinationOptions) {
            if (!holdsExtension(offset)) return brokenChain;
            next = byteAt(packet, offset);
            offset += 8 + 8 * signedByteAt(packet, offset + 1);
            advanced = true;
        }
        if (next == authentication) {
            if (!holdsExtension(offset)) return brokenChain;
            next = byteAt(packet, offset);
            offset += 8 + 4 * signedByteAt(packet, offset + 1);
            advanced = true;
        }
        if (next == fragment) {
            if (!holdsExtension(offset)) return brokenChain;
            next = byteAt(packet, offset);
            offset += 8;
            continue;
        }
        if (!advanced) break;
    }
    return holdsTransport(offset) ? HeadersEnd{offset, next} : brokenChain;
}

// Whatever is not IPv4 is read as IPv6. Hardly any packet has extensions to walk.
HeadersEnd headersEnd(const char* packet) {
    if (isVersion4(packet)) return {(byteAt(packet, 0) * 4) & 60, byteAt(packet, protocolV4)};
    const int next = byteAt(packet, nextHeaderV6);
    return isExtension(next) ? walkExtensions(packet) : HeadersEnd{fixedHeaderV6, next};
}

int tcpHeaderSizeAt(const char* packet, int offset) {
    return (byteAt(packet, offset + dataOffset) >> 2) & 60;
}

// The sum of both header sizes is cut to 16 bits wherever it is used.
int headersSize(const char* packet) {
    const int offset = headersEnd(packet).offset;
    return (offset + tcpHeaderSizeAt(packet, offset)) & 0xffff;
}

int portAt(const char* packet, int position) {
    return platform::readBig16(packet + headersEnd(packet).offset + position);
}

in6_addr addressAt(const char* packet, int position) {
    in6_addr address;
    std::memcpy(&address, packet + position, sizeof address);
    return address;
}

// The part of a text from the first such word on; empty when there is none.
std::string_view from(std::string_view text, std::string_view word) {
    const std::size_t at = text.find(word);
    return at == std::string_view::npos ? std::string_view() : text.substr(at);
}

// The first "GET " among the first bytes of a text, or null. The text has room for these bytes, wherever it ends.
const char* findGet(const char* text) {
    constexpr std::size_t farthest = 30;
    constexpr std::string_view word = "GET ";
    if (std::memcmp(text, word.data(), word.size()) == 0) return text;
    // Most packets have not even the letter, and then the text's end is nothing to look for.
    if (!std::memchr(text, word[0], farthest)) return nullptr;
    const std::string_view found = from({text, strnlen(text, farthest)}, word);
    return found.empty() ? nullptr : found.data();
}

// Where a header line ends: at its CR LF or, if none follows in the whole text, at its line feed.
std::size_t lineEnd(std::string_view text) {
    const std::size_t end = text.find("\r\n");
    return end != std::string_view::npos ? end : text.find('\n');
}

// A text from a place in it to its end.
std::string_view rest(const char* begin, const char* end) {
    return {begin, static_cast<std::size_t>(end - begin)};
}

// The destination address alone, owned by the caller. Apart from its only caller, which without these variables has
// nothing on its stack that could be written beyond, and needs no guard.
__attribute__((noinline)) GPString* bareDestination(char* packet) {
    int port;
    if (TCPPacket::isVersionIPV6(packet))
        return TCPPacket::formatIpAddressIpv6(TCPPacket::dstIPAddressIpv6(packet, port));
    return TCPPacket::formatIpAddress(TCPPacket::dstIPAddress(packet, port));
}

} // namespace

bool TCPPacket::isVersionIPV6(char* packet) { return (packet[0] & 0xf0) == 0x60; }

int TCPPacket::ipHeaderSize(char* packet) { return headersEnd(packet).offset; }

int TCPPacket::tcpHeaderSize(char* packet) { return tcpHeaderSizeAt(packet, ipHeaderSize(packet)); }

int getIpProtocol(char* packet) { return headersEnd(packet).protocol; }

bool TCPPacket::isProtocolTCP(char* packet) { return getIpProtocol(packet) == protocolTCP; }

bool TCPPacket::isProtocolUDP(char* packet) { return getIpProtocol(packet) == protocolUDP; }

int TCPPacket::packetSize(char* packet) {
    if (isVersion4(packet)) return platform::readBig16(packet + totalLengthV4);
    // Not swapped: all tests of sizes, in the whole system, stand on this figure.
    return platform::readNative<std::uint16_t>(packet + payloadLengthV6) + fixedHeaderV6;
}

int TCPPacket::payloadSize(char* packet) { return packetSize(packet) - headersSize(packet); }

char* TCPPacket::payload(char* packet) {
    const int headers = headersSize(packet);
    packet[packetSize(packet)] = 0;
    return packet + headers;
}

bool TCPPacket::isUsablePacket(char* packet) {
    if (!packet) return false;
    const bool version6 = isVersionIPV6(packet);
    if (!version6 && !isVersion4(packet)) return false;
    const HeadersEnd end = headersEnd(packet);
    if (end.protocol != protocolTCP) return false;
    const int headers = tcpHeaderSizeAt(packet, end.offset) + (end.offset & 0xffff);
    const int size = version6 ? packetSize(packet) & 0xffff : packetSize(packet);
    return headers <= size;
}

unsigned TCPPacket::srcIPAddress(char* packet, int& port) {
    port = portAt(packet, sourcePort);
    return platform::readBig32(packet + sourceV4);
}

unsigned TCPPacket::dstIPAddress(char* packet, int& port) {
    port = portAt(packet, destinationPort);
    return platform::readBig32(packet + destinationV4);
}

in6_addr TCPPacket::srcIPAddressIpv6(char* packet, int& port) {
    port = portAt(packet, sourcePort);
    return addressAt(packet, sourceV6);
}

in6_addr TCPPacket::dstIPAddressIpv6(char* packet, int& port) {
    port = portAt(packet, destinationPort);
    return addressAt(packet, destinationV6);
}

GPString* TCPPacket::formatIpAddress(unsigned address) {
    return GPString::format("%d.%d.%d.%d", address >> 24, address >> 16 & 255, address >> 8 & 255,
                            address & 255);
}

GPString* TCPPacket::formatIpAddressIpv6(in6_addr address) {
    const unsigned char* b = address.s6_addr;
    return GPString::format("[%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x]", b[0],
                            b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                            b[14], b[15]);
}

GPString* TCPPacket::httpURL(char* packet) {
    const char* const start = payload(packet);
    const char* const beginning = findGet(start);
    if (!beginning) return nullptr;
    // The text ends at its first zero byte. A negative payload size puts that of payload() in front of it.
    const auto room = static_cast<std::size_t>(packet + packetRoom - start);
    const auto* const end = static_cast<const char*>(std::memchr(start, 0, room));
    if (!end) return nullptr;

    const std::string_view request = from(rest(beginning, end), "/");
    if (request.empty()) return nullptr;
    const std::size_t pathLength = request.find(" HTTP");
    if (pathLength == std::string_view::npos) return nullptr;
    // The first "Host" counts, also inside another header.
    const std::string_view header = from(request.substr(pathLength), "Host");
    if (header.empty() || pathLength < 1) return nullptr;
    // NOLINTNEXTLINE(bugprone-suspicious-stringview-data-usage): read up to the zero byte behind the text
    const std::string_view host = rest(skipws(nextws(header.data())), end);
    const std::size_t hostLength = lineEnd(host);
    if (hostLength == std::string_view::npos || hostLength < 1) return nullptr;

    return GPString::of("http://", host.substr(0, hostLength), request.substr(0, pathLength));
}

GPString* TCPPacket::httpsURL(char* packet) {
    const int headers = headersSize(packet);
    const int size = packetSize(packet);
    packet[size] = 0; // as payload() does
    const char* const data = packet + headers;
    const ServerNamePlace name =
        findServerName(reinterpret_cast<const unsigned char*>(data), size - headers, serverNameCapacity);
    if (name.offset == ServerNamePlace::nowhere) return nullptr;
    const char* const text = data + name.offset;
    const std::size_t length = strnlen(text, static_cast<std::size_t>(name.length));
    if (length > 0) return GPString::of("https://", {text, length});
    return bareDestination(packet);
}

bool TCPPacket::redirectPacket(char* packet, const char* url) {
    // The text is measured and, without the log line, never built: this runs for every packet with payload
    // of a blocked connection.
    const int length = std::snprintf(nullptr, 0, redirectText, url);
    const int diff = payloadSize(packet) - length;
    if (Configuration::isLogLevel(32)) {
        auto text = Owned<GPString>::adopt(GPString::format(redirectText, url));
        logf("redirectpacket - length: %d ; payload size: %d ; diff: %d ; total packet size: %d ; redirect "
             "to: %s",
             length, payloadSize(packet), diff, packetSize(packet), text->cstr());
    }
    return diff > 0;
}

void TCPPacket::logPacket(char* packet) {
    int srcPort, dstPort;
    auto src = Owned<GPString>::adopt(formatIpAddress(srcIPAddress(packet, srcPort)));
    auto dst = Owned<GPString>::adopt(formatIpAddress(dstIPAddress(packet, dstPort)));
    const int protocol = byteAt(packet, protocolV4);
    const char* name = protocol == protocolTCP ? "TCP" : protocol == protocolUDP ? "UDP" : "???";
    logf("%s:%d -> %s:%d protocol: %s\n", src->cstr(), srcPort, dst->cstr(), dstPort, name);
}

unsigned short TCPPacket::in_cksum(unsigned short* words, int length) {
    std::uint32_t sum = 0;
    for (; length > 1; length -= 2)
        sum += *words++;
    if (length == 1) sum += *reinterpret_cast<unsigned char*>(words);
    sum = (sum >> 16) + (sum & 0xffff);
    sum += sum >> 16;
    return static_cast<unsigned short>(~sum);
}

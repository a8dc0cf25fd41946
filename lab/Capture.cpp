#include "lab/Capture.h"

#include "lab/Policy.h"
#include "platform/ByteOrder.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>

namespace lab {
namespace {

constexpr int tcp = 6;
constexpr int udp = 17;

constexpr std::uint16_t typeIpv4 = 0x0800;
constexpr std::uint16_t typeIpv6 = 0x86dd;

// In the year 9999; times beyond do not fit the arithmetic of a replay.
constexpr std::int64_t latestSecond = 253402300799;

bool isVlanTag(std::uint16_t type) { return type == 0x8100 || type == 0x88a8 || type == 0x9100; }

bool isIp(std::uint16_t type) { return type == typeIpv4 || type == typeIpv6; }

bool canBe(const timeval& time) {
    return time.tv_sec >= 0 && time.tv_sec <= latestSecond && time.tv_usec >= 0 && time.tv_usec < 1000000;
}

bool linkTypeKnown(int linkType) {
    switch (linkType) {
        case DLT_EN10MB:
        case DLT_RAW:
        case DLT_IPV4:
        case DLT_IPV6:
        case DLT_LINUX_SLL:
        case DLT_LINUX_SLL2:
        case DLT_NULL:
        case DLT_LOOP:
        case DLT_NFLOG:
            return true;
        default:
            return false;
    }
}

// Where the IP header starts behind an EtherType at `at`, VLAN tags skipped.
std::optional<std::size_t> behindEtherType(const unsigned char* bytes, std::size_t size, std::size_t at) {
    while (at + 2 <= size) {
        const std::uint16_t type = platform::readBig16(bytes + at);
        if (isIp(type)) return at + 2;
        if (!isVlanTag(type)) return {};
        at += 4;
    }
    return {};
}

// The packet is the last of the fields that the kernel's log hands over. A field's length counts its own head, and
// the next begins at a multiple of four; both numbers are in this machine's order.
std::optional<std::size_t> behindNflogFields(const unsigned char* bytes, std::size_t size) {
    constexpr std::size_t fieldHead = 4;
    constexpr std::uint16_t packetField = 9;
    for (std::size_t at = 4; at + fieldHead <= size;) {
        const auto length = platform::readNative<std::uint16_t>(bytes + at);
        if (platform::readNative<std::uint16_t>(bytes + at + 2) == packetField) return at + fieldHead;
        if (length < fieldHead) return {};
        at += (std::size_t{length} + 3) / 4 * 4;
    }
    return {};
}

// Where the IP header starts in a record; nothing for what is not IP.
std::optional<std::size_t> ipOffset(int linkType, const unsigned char* bytes, std::size_t size) {
    switch (linkType) {
        case DLT_EN10MB:
            return behindEtherType(bytes, size, 12);
        case DLT_LINUX_SLL:
            return behindEtherType(bytes, size, 14);
        case DLT_LINUX_SLL2:
            if (size < 20 || !isIp(platform::readBig16(bytes))) return {};
            return 20;
        case DLT_NULL:
        case DLT_LOOP:
            return 4; // the version nibble decides, since family numbers differ between systems
        case DLT_NFLOG:
            return behindNflogFields(bytes, size);
        default:
            return 0;
    }
}

void readPorts(const unsigned char* transport, std::size_t size, CapturedPacket& packet) {
    if (packet.protocol != tcp && packet.protocol != udp) return;
    if (size < 4) return;
    packet.hasPorts = true;
    packet.source.port = platform::readBig16(transport);
    packet.destination.port = platform::readBig16(transport + 2);
    if (packet.protocol != tcp || size < 14) return;
    const unsigned flags = transport[13];
    packet.fin = flags & 0x01;
    packet.syn = flags & 0x02;
    packet.rst = flags & 0x04;
    packet.ack = flags & 0x10;
}

// Where the transport header of an IPv6 packet starts; nothing behind a later fragment's header.
std::optional<std::size_t> ipv6Transport(const unsigned char* bytes, std::size_t size, int& protocol) {
    protocol = bytes[6];
    std::size_t at = 40;
    while (at + 8 <= size) {
        if (protocol == 0 || protocol == 43 || protocol == 60) {
            protocol = bytes[at];
            at += 8 + std::size_t{bytes[at + 1]} * 8;
        } else if (protocol == 51) {
            protocol = bytes[at];
            at += 8 + std::size_t{bytes[at + 1]} * 4;
        } else if (protocol == 44) {
            if (platform::readBig16(bytes + at + 2) & 0xfff8) return {};
            protocol = bytes[at];
            at += 8;
        } else {
            break;
        }
    }
    if (at > size) return {};
    return at;
}

bool dissectIpv4(const unsigned char* bytes, std::size_t captured, CapturedPacket& packet) {
    const std::size_t headerSize = std::size_t{bytes[0] & 0x0fu} * 4;
    const std::size_t length = platform::readBig16(bytes + 2);
    if (captured < 20 || headerSize < 20 || length < headerSize) return false;
    packet.bytes.assign(bytes, bytes + std::min(captured, length));
    packet.bytes.resize(length);
    packet.protocol = bytes[9];
    packet.source.address.assign(packet.bytes.data() + 12, 4);
    packet.destination.address.assign(packet.bytes.data() + 16, 4);
    const bool laterFragment = platform::readBig16(bytes + 6) & 0x1fff;
    if (!laterFragment && captured > headerSize)
        readPorts(bytes + headerSize, std::min(captured, length) - headerSize, packet);
    return true;
}

bool dissectIpv6(const unsigned char* bytes, std::size_t captured, CapturedPacket& packet) {
    if (captured < 40) return false;
    const std::size_t length = 40 + std::size_t{platform::readBig16(bytes + 4)};
    packet.bytes.assign(bytes, bytes + std::min(captured, length));
    packet.bytes.resize(length);
    packet.source.address.assign(packet.bytes.data() + 8, 16);
    packet.destination.address.assign(packet.bytes.data() + 24, 16);
    const std::size_t size = std::min(captured, length);
    const auto transport = ipv6Transport(bytes, size, packet.protocol);
    if (transport) readPorts(bytes + *transport, size - *transport, packet);
    return true;
}

} // namespace

std::string Endpoint::text() const {
    const bool ipv6 = address.size() == 16;
    char buffer[INET6_ADDRSTRLEN] = "";
    inet_ntop(ipv6 ? AF_INET6 : AF_INET, address.data(), buffer, sizeof buffer);
    const std::string host = ipv6 ? fmt::format("[{}]", buffer) : buffer;
    return port ? fmt::format("{}:{}", host, port) : host;
}

bool dissect(const unsigned char* bytes, std::size_t captured, CapturedPacket& packet) {
    packet = CapturedPacket{};
    if (captured < 4) return false;
    if (bytes[0] >> 4 == 4) return dissectIpv4(bytes, captured, packet);
    if (bytes[0] >> 4 == 6) return dissectIpv6(bytes, captured, packet);
    return false;
}

void Capture::Closer::operator()(pcap* file) const { pcap_close(file); }

Capture::Capture(const std::string& path) : path_(path) {
    std::error_code unreadable;
    if (std::filesystem::exists(path, unreadable) && !std::filesystem::is_regular_file(path, unreadable))
        throw InputError(fmt::format("{}: not a regular file", path));
    if (path == "-") throw InputError("-: a capture is read twice, so it cannot come from standard input");
    char error[PCAP_ERRBUF_SIZE] = "";
    file_.reset(pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_MICRO, error));
    if (!file_) {
        const std::string text = error;
        const std::string prefix = path + ": ";
        throw InputError(text.compare(0, prefix.size(), prefix) == 0 ? text : prefix + text);
    }
    linkType_ = pcap_datalink(file_.get());
    if (!linkTypeKnown(linkType_)) {
        const char* name = pcap_datalink_val_to_name(linkType_);
        throw InputError(
            fmt::format("{}: link type {} ({}) cannot be replayed; Ethernet, raw IP, Linux cooked, "
                        "loopback and netfilter log can",
                        path, linkType_, name ? name : "unknown"));
    }
}

bool Capture::next(CapturedPacket& packet) {
    pcap_pkthdr* header = nullptr;
    const unsigned char* bytes = nullptr;
    for (;;) {
        const int status = pcap_next_ex(file_.get(), &header, &bytes);
        if (status == PCAP_ERROR_BREAK) return false;
        if (status != 1)
            throw InputError(
                fmt::format("{}: packet {}: {}", path_, position_ + 1, pcap_geterr(file_.get())));
        ++position_;
        if (!canBe(header->ts))
            throw InputError(fmt::format("{}: packet {}: its time cannot be", path_, position_));
        const auto offset = ipOffset(linkType_, bytes, header->caplen);
        if (!offset || *offset >= header->caplen) continue;
        if (!dissect(bytes + *offset, header->caplen - *offset, packet)) continue;
        packet.number = position_;
        packet.time = std::int64_t{header->ts.tv_sec} * 1000000 + header->ts.tv_usec;
        return true;
    }
}

CaptureFacts survey(const std::string& path) {
    // The best sign of each family so far: a SYN outranks a SYN-ACK, that outranks any packet.
    enum Sign { none, anyPacket, synAck, synAlone };
    Sign best[2] = {none, none};
    CaptureFacts facts;
    Capture capture(path);
    for (CapturedPacket packet; capture.next(packet);) {
        if (!facts.firstTime) facts.firstTime = packet.time;
        const int family = packet.source.address.size() == 16 ? 1 : 0;
        const Sign sign = packet.syn ? (packet.ack ? synAck : synAlone) : anyPacket;
        if (sign <= best[family]) continue;
        best[family] = sign;
        facts.computers[family] = sign == synAck ? packet.destination.address : packet.source.address;
    }
    facts.records = capture.position();
    return facts;
}

} // namespace lab

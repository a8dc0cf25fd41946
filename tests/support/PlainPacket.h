#pragma once

// One packet read byte by byte, as the rules tell it and whatever that costs: what the system's own reading, with all
// that it does to be quick, is held against. It shares no code with it, reads anew whatever it is asked for, and
// checks each place that it reads: one outside of the packet's room throws std::out_of_range.

#include <optional>
#include <string>
#include <utility>

namespace testsupport {

class PlainPacket {
public:
    // A packet that begins `TCPPacket::packetRoom` bytes of the caller's.
    explicit PlainPacket(char* packet) : packet_(packet) {}

    int ipHeaderSize() const { return isVersion(4) ? byte(0) % 16 * 4 : walk().first; }
    int protocol() const { return isVersion(4) ? byte(9) : walk().second; }
    int tcpHeaderSize() const { return byte(ipHeaderSize() + 12) / 16 * 4; }
    int headers() const { return (ipHeaderSize() + tcpHeaderSize()) & 0xffff; }
    int size() const { return isVersion(4) ? byte(2) * 256 + byte(3) : byte(5) * 256 + byte(4) + 40; }
    int payloadSize() const { return size() - headers(); }
    int port(int position) const;
    bool isUsable() const;

    // The first byte behind the headers, once the zero behind the packet is written.
    char* payload();

    // The URLs, or "(null)". Each writes that zero first.
    std::string httpUrl();
    std::string httpsUrl();

private:
    int byte(int at) const;
    int two(int at) const { return byte(at) * 256 + byte(at + 1); }
    bool isVersion(int version) const { return byte(0) / 16 == version; }

    // Offset and protocol at the end of the extension headers; a chain without an end there counts as {40, 59}.
    std::pair<int, int> walk() const;

    // The name in the hello whose record begins at `start`, empty where there is none to read; nothing where the
    // `size` bytes yield nothing.
    std::optional<std::string> serverName(int start, int size) const;
    std::optional<std::string> nameInExtensions(int start, int at, int size) const;

    std::string destination() const;

    char* packet_;
};

} // namespace testsupport

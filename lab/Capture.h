#pragma once

// The IP packets of a capture file, one at a time, whatever link they were recorded on.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct pcap;

namespace lab {

// One end of a packet. `port` is 0 where the protocol has none.
struct Endpoint {
    std::string address; // 4 or 16 bytes
    int port = 0;

    bool operator==(const Endpoint& other) const { return address == other.address && port == other.port; }
    bool operator<(const Endpoint& other) const {
        return address != other.address ? address < other.address : port < other.port;
    }

    // "10.0.0.2:50000", "[fe80::1]:443"; without the port where there is none.
    std::string text() const;
};

// One IP packet, as long as its length field says; bytes that the capture cut off are zero.
struct CapturedPacket {
    long number = 0;       // the packet's place in the capture file, from 1
    std::int64_t time = 0; // microseconds since the epoch
    std::vector<char> bytes;
    Endpoint source;
    Endpoint destination;
    int protocol = 0; // 6 is TCP
    bool hasPorts = false;
    bool syn = false;
    bool ack = false;
    bool fin = false;
    bool rst = false;
};

class Capture {
public:
    // Opens a pcap or pcapng file; a file in the full sense, since a replay reads it twice. Throws InputError.
    explicit Capture(const std::string& path);

    // The next IP packet, or false at the end. Throws InputError for a file that breaks off or has an
    // impossible time.
    bool next(CapturedPacket& packet);

    // How many records of the file have been read, packets that are not IP included.
    long position() const { return position_; }

private:
    struct Closer {
        void operator()(pcap* file) const;
    };

    std::string path_;
    std::unique_ptr<pcap, Closer> file_;
    int linkType_ = 0;
    long position_ = 0;
};

// What the first reading of a capture tells, before it is played.
struct CaptureFacts {
    long records = 0;           // all records of the file
    std::int64_t firstTime = 0; // of the first IP packet, in microseconds since the epoch
    std::string computers[2];   // this computer's IPv4 and IPv6 address; empty where there is none
};

// Reads the whole file once. This computer is the sender of the first SYN without ACK, else the receiver of
// the first SYN-ACK, else the sender of the first packet, in each address family. Throws InputError.
CaptureFacts survey(const std::string& path);

// Takes an IP packet apart; false for what is not IPv4 or IPv6 or too short for its header.
bool dissect(const unsigned char* bytes, std::size_t captured, CapturedPacket& packet);

} // namespace lab

#pragma once

// Captures that a test writes: files of any link type, and small conversations as they are on the wire.

#include <string>

struct pcap;
struct pcap_dumper;

namespace labtest {

// Writes one pcap file, complete when the writer goes.
class CaptureWriter {
public:
    // `linkType` as in libpcap; raw IP unless told.
    explicit CaptureWriter(const std::string& path, int linkType = rawIp);
    ~CaptureWriter();

    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    // Adds a record at that many seconds behind the start of the capture. `claimed` is the size on the wire
    // where the capture holds less.
    CaptureWriter& add(double seconds, const std::string& bytes, std::size_t claimed = 0);

    static constexpr int rawIp = 12; // DLT_RAW
    static constexpr long startSecond = 1700000000;

private:
    pcap* handle_;
    pcap_dumper* file_;
};

// Bytes of a TCP header's flags.
enum Flags { finAck = 0x11, syn = 0x02, synAck = 0x12, ack = 0x10, pushAck = 0x18, reset = 0x04 };

// One TCP connection from 10.0.0.2 to 93.184.216.34:80, by its local port, or over IPv6 from [2001:db8::2] to
// [2001:db8::22]:80.
class Talk {
public:
    explicit Talk(int localPort, bool ipv6 = false) : port_(localPort), ipv6_(ipv6) {}

    std::string out(Flags flags, const std::string& payload = "") const;
    std::string in(Flags flags, const std::string& payload = "") const;

private:
    std::string packet(bool outbound, Flags flags, const std::string& payload) const;

    int port_;
    bool ipv6_;
};

// A whole exchange from `start` on, a millisecond between its six packets: SYN, SYN-ACK, request, answer, FIN,
// FIN.
void addExchange(CaptureWriter& capture, double start, const Talk& talk, const std::string& request);

// A GET request of at least `size` bytes for http://HOST/PATH.
std::string get(const std::string& host, const std::string& path = "/", std::size_t size = 200);

} // namespace labtest

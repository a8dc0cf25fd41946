// Writes the hellos and the GETs of captures, whole, cut, damaged and in two packets, into a capture of packets that
// have nothing to do with each other, and what the daemon reads in each.
//
//   recorded-readings OUT.pcap CAPTURE...
//
// One line a packet: what was done to it, the size of its payload, the URL in hexadecimal or "-", and that of the whole
// request. In OUT.pcap a record
// that a packet cuts is filled up with zeros, since other programs read no part of a record.

#include "lab/LabRequests.h"
#include "packet/TCPPacket.h"
#include "support/PacketBuilder.h"
#include "support/Taken.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

using labtest::RecordedRequest;

constexpr std::size_t recordHeader = 5;
constexpr std::size_t largestRecord = 18432;

std::string filledUp(std::string payload) {
    if (payload.size() < recordHeader || payload[0] != 22) return payload;
    const std::size_t size =
        recordHeader + static_cast<unsigned char>(payload[3]) * 256 + static_cast<unsigned char>(payload[4]);
    if (size > payload.size() && size <= recordHeader + largestRecord) payload.resize(size);
    return payload;
}

// A file of raw IP packets.
class PacketFile {
public:
    explicit PacketFile(const std::string& path) : file_(path, std::ios::binary) {
        for (const std::uint32_t word : {0xa1b2c3d4u, 0x00040002u, 0u, 0u, 262144u, 101u})
            put(word);
    }

    void add(const std::string& packet) {
        const auto size = static_cast<std::uint32_t>(packet.size());
        for (const std::uint32_t word : {number_++, 0u, size, size})
            put(word);
        file_ << packet;
    }

    void close() {
        file_.close();
        if (!file_) throw std::runtime_error("the packets cannot be written");
    }

private:
    void put(std::uint32_t word) { file_.write(reinterpret_cast<const char*>(&word), sizeof word); }

    std::ofstream file_;
    std::uint32_t number_ = 0;
};

class Readings {
public:
    explicit Readings(PacketFile& file) : file_(file) {}

    void addAllOf(const RecordedRequest& request) {
        port_ = request.tls ? 443 : 80;
        std::string payload = request.payload();
        add("whole", payload);
        for (std::size_t size = 1; size < payload.size(); ++size) {
            add("cut", payload.substr(0, size)); // which is also the first of two packets
            add("second", payload.substr(size));
        }
        labtest::eachDamage(payload, 0, [&] { add("damaged", payload); });
    }

private:
    void add(const char* done, const std::string& payload) {
        const unsigned n = ++count_;
        const std::string source = "10." + std::to_string(n >> 16 & 255) + '.' +
                                   std::to_string(n >> 8 & 255) + '.' + std::to_string(n & 255);
        auto packet = testsupport::PacketBuilder::ipv4().from(source, 50000).to("93.184.216.34", port_);
        file_.add(packet.payload(filledUp(payload)).bytes());
        auto buffer = packet.payload(payload).build();
        const std::string url = urlOf(buffer.packet());
        if (*done == 'w') whole_ = url;
        std::printf("%s %zu %s %s\n", done, payload.size(), url.c_str(), whole_.c_str());
    }

    static std::string urlOf(char* packet) {
        std::string url = testsupport::taken(TCPPacket::httpsURL(packet));
        if (url == "(null)") url = testsupport::taken(TCPPacket::httpURL(packet));
        if (url == "(null)") return "-";
        std::string digits;
        for (const unsigned char byte : url) {
            digits += "0123456789abcdef"[byte >> 4];
            digits += "0123456789abcdef"[byte & 15];
        }
        return digits;
    }

    PacketFile& file_;
    unsigned count_ = 0;
    int port_ = 0;
    std::string whole_;
};

} // namespace

int main(int count, char** words) {
    if (count < 3) {
        std::fputs("usage: recorded-readings OUT.pcap CAPTURE...\n", stderr);
        return 2;
    }
    PacketFile file(words[1]);
    Readings readings(file);
    for (int i = 2; i < count; ++i)
        for (const RecordedRequest& request : labtest::recordedRequests(words[i]))
            readings.addAllOf(request);
    file.close();
}

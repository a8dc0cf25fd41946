#include "lab/LabRequests.h"

#include "lab/Capture.h"
#include "packet/TCPPacket.h"

#include <algorithm>
#include <filesystem>

namespace labtest {
namespace {

constexpr std::size_t tcpBehindIp = 20;

// The real headers' size, from the real length of an IPv6 packet too.
std::size_t headersOf(lab::CapturedPacket& packet) {
    packet.bytes.resize(packet.bytes.size() +
                        tcpBehindIp); // the header sizes are read there, whatever is there
    char* const bytes = packet.bytes.data();
    const int headers = TCPPacket::ipHeaderSize(bytes) + TCPPacket::tcpHeaderSize(bytes);
    packet.bytes.resize(packet.bytes.size() - tcpBehindIp);
    return static_cast<std::size_t>(headers);
}

} // namespace

std::vector<RecordedRequest> recordedRequests(const std::string& capture) {
    std::vector<RecordedRequest> requests;
    lab::Capture file(capture);
    for (lab::CapturedPacket packet; file.next(packet);) {
        if (packet.protocol != 6) continue;
        RecordedRequest request;
        request.headers = headersOf(packet);
        request.packet.assign(packet.bytes.begin(), packet.bytes.end());
        if (request.headers >= request.packet.size()) continue;
        const std::string payload = request.payload();
        request.tls = payload.size() > 5 && payload[0] == 22 && payload[5] == 1;
        if (request.tls || payload.substr(0, 30).find("GET ") != std::string::npos)
            requests.push_back(request);
    }
    return requests;
}

std::vector<std::string> recordedCaptures() {
    std::vector<std::string> captures;
    for (const auto& entry : std::filesystem::directory_iterator(OSTLER_TEST_DATA "/captures")) {
        const std::string kind = entry.path().extension();
        if (kind == ".pcap" || kind == ".pcapng") captures.push_back(entry.path());
    }
    std::sort(captures.begin(), captures.end());
    return captures;
}

void eachDamage(std::string& bytes, std::size_t from, const std::function<void()>& take) {
    for (std::size_t at = from; at < bytes.size(); ++at) {
        const char recorded = bytes[at];
        for (const int other : {recorded - 1, recorded + 1, 0, 127, 128, 255}) {
            bytes[at] = static_cast<char>(other);
            if (bytes[at] != recorded) take();
        }
        bytes[at] = recorded;
    }
}

void setLengthField(std::string& packet) {
    const bool ipv6 = (packet[0] & 0xf0) == 0x60;
    const std::size_t length = ipv6 ? packet.size() - 40 : packet.size();
    const std::size_t place = ipv6 ? 4 : 2;
    packet[place] = static_cast<char>(length >> 8);
    packet[place + 1] = static_cast<char>(length & 0xff);
}

} // namespace labtest

#include "lab/LabCaptures.h"

#include "support/PacketBuilder.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <stdexcept>

namespace labtest {

using testsupport::PacketBuilder;

CaptureWriter::CaptureWriter(const std::string& path, int linkType)
    : handle_(pcap_open_dead(linkType, 262144)), file_(pcap_dump_open(handle_, path.c_str())) {
    if (!file_) throw std::runtime_error(pcap_geterr(handle_));
}

CaptureWriter::~CaptureWriter() {
    pcap_dump_close(file_);
    pcap_close(handle_);
}

CaptureWriter& CaptureWriter::add(double seconds, const std::string& bytes, std::size_t claimed) {
    const auto microseconds = static_cast<long>(seconds * 1e6 + 0.5);
    pcap_pkthdr header{};
    header.ts.tv_sec = startSecond + microseconds / 1000000;
    header.ts.tv_usec = microseconds % 1000000;
    header.caplen = static_cast<bpf_u_int32>(bytes.size());
    header.len = static_cast<bpf_u_int32>(std::max(bytes.size(), claimed));
    pcap_dump(reinterpret_cast<u_char*>(file_), &header, reinterpret_cast<const u_char*>(bytes.data()));
    return *this;
}

std::string Talk::packet(bool outbound, Flags flags, const std::string& payload) const {
    PacketBuilder builder = ipv6_ ? PacketBuilder::ipv6() : PacketBuilder::ipv4();
    builder.from(ipv6_ ? "2001:db8::2" : "10.0.0.2", port_).payload(payload);
    if (!outbound) builder.reversed();
    const int flagsAt = (ipv6_ ? 40 : 20) + 13;
    return builder.put(flagsAt, std::string(1, static_cast<char>(flags))).bytes();
}

std::string Talk::out(Flags flags, const std::string& payload) const { return packet(true, flags, payload); }

std::string Talk::in(Flags flags, const std::string& payload) const { return packet(false, flags, payload); }

void addExchange(CaptureWriter& capture, double start, const Talk& talk, const std::string& request) {
    capture.add(start, talk.out(syn))
        .add(start + 0.001, talk.in(synAck))
        .add(start + 0.002, talk.out(pushAck, request))
        .add(start + 0.003, talk.in(pushAck, "HTTP/1.1 204 No Content\r\n\r\n"))
        .add(start + 0.004, talk.out(finAck))
        .add(start + 0.005, talk.in(finAck));
}

std::string get(const std::string& host, const std::string& path, std::size_t size) {
    std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nCookie: ";
    while (request.size() + 4 < size)
        request += 'c';
    return request + "\r\n\r\n";
}

} // namespace labtest

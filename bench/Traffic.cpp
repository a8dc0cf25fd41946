#include "bench/Traffic.h"

#include "bench/DaemonState.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "lab/Capture.h"
#include "packet/HijackPacket.h"
#include "packet/TCPPacket.h"
#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"

#include <cstring>

using testsupport::ClientHelloBuilder;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace bench {
namespace {

constexpr int portsOfAnAddress = 40000;

PacketBuilder packetOf(long connection) {
    const long address = connection / portsOfAnAddress;
    const std::string from =
        "10." + std::to_string(address / 200 % 200) + "." + std::to_string(address % 200) + ".2";
    return PacketBuilder::ipv4()
        .from(from, 20000 + static_cast<int>(connection % portsOfAnAddress))
        .to("93.184.216.34", 443);
}

std::string nameOf(long connection) { return "host" + std::to_string(connection) + ".example.org"; }

} // namespace

Records dataRecords(std::size_t bytes, bool ipv6) {
    const PacketBuilder builder = ipv6 ? PacketBuilder::ipv6() : PacketBuilder::ipv4();
    return {PacketBuilder(builder).payload(std::string(bytes, 'x')).build().record()};
}

Records recordedMix(bool inbound) {
    const std::string path = OSTLER_CAPTURES "/many.pcap";
    const lab::CaptureFacts facts = lab::survey(path);
    lab::Capture capture(path);
    Records records;
    for (lab::CapturedPacket packet; capture.next(packet);) {
        const std::string& computer = facts.computers[packet.source.address.size() == 16 ? 1 : 0];
        if ((packet.source.address != computer) != inbound) continue;
        const std::string bytes(packet.bytes.begin(), packet.bytes.end());
        records.push_back(PacketBuffer(records.size() + 1, bytes).record());
    }
    return records;
}

void allowRequests(const Records& records) {
    MovedClock::installed().setOffset(3600 * 1000000LL); // so that no record runs out while the bench runs
    std::vector<char> buffer(TCPPacket::receiveBufferSize);
    char* const packet = buffer.data() + TCPPacket::recordHeaderSize;
    // Twice, as the records are presented again and again: a packet may be read on into what the one before it left.
    for (std::size_t i = 0; i < 2 * records.size(); ++i) {
        const std::string& record = records[i % records.size()];
        std::memcpy(buffer.data(), record.data(), record.size());
        if (!TCPPacket::isUsablePacket(packet)) continue;
        auto url = Owned<GPString>::adopt(TCPPacket::httpsURL(packet));
        const bool https = static_cast<bool>(url);
        if (!https) url = Owned<GPString>::adopt(TCPPacket::httpURL(packet));
        if (!url) continue;
        HijackPacket::create(packet, url->cstr(), https);
        HijackPacket::resolve(url->cstr(), nullptr);
    }
    platform::clockService.install(platform::clockService.backend());
}

std::string urlOf(long connection) { return "https://" + nameOf(connection); }

std::string helloOf(long connection) {
    return packetOf(connection)
        .payload(ClientHelloBuilder().serverName(nameOf(connection)).build())
        .build()
        .record();
}

std::string dataOf(long connection) {
    return packetOf(connection).payload(std::string(1400, '\x17')).build().record();
}

} // namespace bench

#include "support/VerdictWorld.h"

#include "config/Configuration.h"
#include "packet/HijackPacket.h"
#include "packet/PacketVerdicts.h"
#include "support/ClientHelloBuilder.h"
#include "support/ManualClock.h"

namespace testsupport {

VerdictWorld::VerdictWorld() : names(*new PlayedNames) {
    names.install();
    names.neverAnswer("127.0.0.1"); // the agent's address: the first query waits, the others behind it
    Configuration::addServerName("localhost", false);
}

int VerdictWorld::outbound(const PacketBuilder& packet) {
    PacketBuffer buffer = packet.build();
    return outbound(buffer);
}

int VerdictWorld::inbound(const PacketBuilder& packet) {
    PacketBuffer buffer = packet.build();
    return inbound(buffer);
}

int VerdictWorld::outbound(PacketBuffer& packet) {
    result = {};
    result.packetId = 0x1122334455667788;
    return tcpOutBoundCallback(packet.packet(), &result);
}

int VerdictWorld::inbound(PacketBuffer& packet) {
    result = {};
    result.packetId = 0x1122334455667788;
    return tcpInBoundCallback(packet.packet(), &result);
}

PacketBuilder VerdictWorld::get(const std::string& path, const std::string& host) {
    return PacketBuilder::ipv4().payload(getRequest(path, host));
}

PacketBuilder VerdictWorld::hello(const std::string& name) {
    return PacketBuilder::ipv4()
        .to("93.184.216.34", 443)
        .payload(ClientHelloBuilder().serverName(name).build());
}

PacketBuilder VerdictWorld::reply(int port, const std::string& payload) {
    return PacketBuilder::ipv4().to("93.184.216.34", port).reversed().payload(payload);
}

bool VerdictWorld::hasRecord(const PacketBuilder& packet) {
    PacketBuffer buffer = packet.build();
    return HijackPacket::find(buffer.packet()) != nullptr;
}

bool VerdictWorld::wasQueried(const std::string& url) const { return log.holds("url being checked: " + url); }

void VerdictWorld::advance(std::int64_t microseconds) { ManualClock::installed().advance(microseconds); }

} // namespace testsupport

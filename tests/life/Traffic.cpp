#include "life/Traffic.h"

#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"

namespace life {
namespace {

using testsupport::PacketBuilder;

Packet packetOf(const PacketBuilder& builder) {
    const std::string bytes = builder.bytes();
    return {bytes.begin(), bytes.end()};
}

// Longer than any redirect.
std::string longRequest(const std::string& host) {
    return "GET / HTTP/1.1\r\nHost: " + host + "\r\nUser-Agent: " + std::string(400, 'u') + "\r\n\r\n";
}

} // namespace

Connection makeConnection(Draw& draw, long number, const std::string& kind, bool ipv6) {
    const bool https = draw.oneIn(2);
    const std::string host = std::to_string(number) + "." + kind + ".example";
    const int localPort = static_cast<int>(1024 + draw.below(60000));
    const int farPort = https ? 443 : 80;
    const std::string last = std::to_string(1 + draw.below(250));
    const PacketBuilder out =
        ipv6 ? PacketBuilder::ipv6().from("2001:db8::2", localPort).to("2001:db8::" + last, farPort)
             : PacketBuilder::ipv4().from("10.0.0.2", localPort).to("93.184.216." + last, farPort);
    PacketBuilder in = PacketBuilder(out).reversed();
    const std::string request =
        https ? testsupport::ClientHelloBuilder().serverName(host).build() : longRequest(host);
    return {packetOf(PacketBuilder(out).payload(request)),
            packetOf(PacketBuilder(out).payload("some more of the same")),
            packetOf(PacketBuilder(in).payload("x")), packetOf(out), packetOf(in)};
}

Packet strayBytes(Draw& draw) {
    Packet bytes(static_cast<std::size_t>(1 + draw.below(120)));
    for (char& byte : bytes)
        byte = static_cast<char>(draw.below(256));
    if (draw.oneIn(2)) bytes[0] = draw.oneIn(2) ? 0x45 : 0x60;
    return bytes;
}

} // namespace life

// Every reading of a packet against its plainest form, byte by byte, over packets with damaged bytes.

#include "packet/TCPPacket.h"

#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"
#include "support/PlainPacket.h"
#include "support/Taken.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;
using testsupport::PlainPacket;
using testsupport::taken;

namespace {

class TCPPacketPlainReading : public testing::Test {
protected:
    // Extensions of 1,024 bytes each.
    static PacketBuilder longChain(int extensions) {
        PacketBuilder packet = PacketBuilder::ipv6();
        for (int i = 0; i < extensions; ++i)
            packet.extension(0, 127);
        return packet;
    }

    static std::vector<PacketBuffer> wholePackets() {
        const std::string hello = ClientHelloBuilder().extensionBefore(10, "abcd").build();
        std::vector<PacketBuffer> packets;
        for (const std::string& payload :
             {getRequest("/a?b"), "xx\r\n" + getRequest(), hello, std::string(60, 'x')}) {
            const int size = static_cast<int>(payload.size());
            packets.push_back(PacketBuilder::ipv4().payload(payload).build());
            packets.push_back(PacketBuilder::ipv4().ipOptions(3).tcpOptions(5).payload(payload).build());
            packets.push_back(PacketBuilder::ipv6().payload(payload).build());
            packets.push_back(PacketBuilder::ipv6().payload(payload).sizeReadAs(60 + size).build());
            packets.push_back(
                PacketBuilder::ipv6().extension(0, 1).extension(44, 0).payload(payload).build());
        }
        // Headers of more than 4,096 and of more than 65,535 bytes.
        packets.push_back(longChain(5).payload(getRequest()).build());
        packets.push_back(longChain(63).extension(0, 120).payload(getRequest()).build());
        // Without a zero byte anywhere behind it, or behind the place where a size below the headers' puts it.
        for (const PacketBuilder& builder : {PacketBuilder::ipv4(), PacketBuilder::ipv4().sizeReadAs(30)}) {
            packets.push_back(PacketBuilder(builder).payload(getRequest()).build());
            const std::size_t size = packets.back().bytes().size();
            std::memset(packets.back().packet() + size, 'y', TCPPacket::packetRoom - size);
        }
        return packets;
    }

    unsigned draw(unsigned below) { return random_() % below; }

    // Some bytes become others that a packet may well have in such a place.
    void damage(PacketBuffer& packet) {
        static constexpr char bytes[] =
            "\0\xff\x80\x7f/ GH\r\n\t\x06\x2c\x3c\x33\x01\x16\x03\x45\x4f\x60\x65\x50";
        const auto size = static_cast<unsigned>(packet.bytes().size());
        for (unsigned left = draw(6); left > 0; --left) {
            const unsigned at = draw(2) == 0 ? draw(60) : draw(size);
            packet.packet()[at] = draw(3) == 0 ? static_cast<char>(draw(256)) : bytes[draw(sizeof bytes - 1)];
        }
    }

    std::mt19937 random_{11};
};

void expectSameReading(PacketBuffer& packet, PacketBuffer& copy) {
    char* const read = packet.packet();
    PlainPacket plain(copy.packet());
    int port = 0;
    EXPECT_EQ(TCPPacket::ipHeaderSize(read), plain.ipHeaderSize());
    EXPECT_EQ(getIpProtocol(read), plain.protocol());
    EXPECT_EQ(TCPPacket::tcpHeaderSize(read), plain.tcpHeaderSize());
    EXPECT_EQ(TCPPacket::packetSize(read), plain.size());
    EXPECT_EQ(TCPPacket::payloadSize(read), plain.payloadSize());
    EXPECT_EQ(TCPPacket::isUsablePacket(read), plain.isUsable());
    TCPPacket::srcIPAddress(read, port);
    EXPECT_EQ(port, plain.port(0));
    TCPPacket::dstIPAddressIpv6(read, port);
    EXPECT_EQ(port, plain.port(2));
}

} // namespace

TEST_F(TCPPacketPlainReading, DamagedPacketsAreReadAsByteByByte) {
    const std::vector<PacketBuffer> whole = wholePackets();
    int urls = 0, negative = 0, unusable = 0;
    for (int round = 0; round < 2000 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        PacketBuffer packet = whole[draw(static_cast<unsigned>(whole.size()))];
        damage(packet);
        PacketBuffer copy = packet;
        PlainPacket plain(copy.packet());

        expectSameReading(packet, copy);
        negative += plain.payloadSize() < 0;
        unusable += !plain.isUsable();
        EXPECT_EQ(TCPPacket::payload(packet.packet()) - packet.packet(), plain.payload() - copy.packet());
        const std::string tls = taken(TCPPacket::httpsURL(packet.packet()));
        EXPECT_EQ(tls, plain.httpsUrl());
        const std::string http = taken(TCPPacket::httpURL(packet.packet()));
        EXPECT_EQ(http, plain.httpUrl());
        urls += tls != "(null)" || http != "(null)";
        EXPECT_EQ(std::memcmp(packet.packet(), copy.packet(), TCPPacket::packetRoom), 0);
    }
    // All kinds were among them.
    EXPECT_GT(urls, 500);
    EXPECT_GT(negative, 20);
    EXPECT_GT(unusable, 100);
}

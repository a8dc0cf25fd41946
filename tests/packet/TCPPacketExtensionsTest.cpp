#include "packet/TCPPacket.h"

#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "support/PacketBuilder.h"

#include <gtest/gtest.h>
#include <random>
#include <set>
#include <utility>

using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace {

// Writes an extension header into the packet.
void writeExtension(PacketBuffer& packet, int offset, int next, int lengthByte) {
    packet.packet()[offset] = static_cast<char>(next);
    packet.packet()[offset + 1] = static_cast<char>(lengthByte);
}

// An IPv6 packet whose chain begins with `next` at offset 40, with a size that no test minds.
PacketBuffer chainPacket(int next) {
    return PacketBuilder::ipv6().protocol(next).sizeReadAs(40 + 20000).build();
}

// Nothing in the packet counts, and no operation leaves the buffer or fails to come back.
void expectPassedUnread(PacketBuffer& packet) {
    int port = 0;
    EXPECT_FALSE(TCPPacket::isProtocolTCP(packet.packet()));
    EXPECT_FALSE(TCPPacket::isProtocolUDP(packet.packet()));
    EXPECT_FALSE(TCPPacket::isUsablePacket(packet.packet()));
    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 40);
    TCPPacket::srcIPAddress(packet.packet(), port);
    TCPPacket::dstIPAddressIpv6(packet.packet(), port);
    sysctl_result result{};
    EXPECT_EQ(tcpOutBoundCallback(packet.packet(), &result), verdictPass);
}

// The walk in its plainest form: it remembers every state that it was in, and stops where it would read
// outside the buffer.
struct PlainWalk {
    explicit PlainWalk(const char* packet) : next(static_cast<unsigned char>(packet[6])) {
        std::set<std::pair<int, int>> seen;
        for (bool advanced = true; advanced;) {
            if (!seen.insert({offset, next}).second) return;
            advanced = false;
            for (const auto& [kinds, unit] : {std::pair(std::set{0, 43, 60}, 8), {{51}, 4}, {{44}, 0}}) {
                if (kinds.count(next) == 0) continue;
                if (offset < 0 || offset + 1 >= TCPPacket::packetRoom) return;
                const int step = 8 + unit * static_cast<signed char>(packet[offset + 1]);
                next = static_cast<unsigned char>(packet[offset]);
                offset += step;
                wentBack = wentBack || step <= 0;
                advanced = true;
            }
        }
        ends = offset >= 0 && offset + 20 <= TCPPacket::packetRoom;
    }

    int offset = 40;
    int next;
    bool wentBack = false;
    bool ends = false;
};

} // namespace

TEST(TCPPacketExtensions, AHeaderWithoutExtensionsIs40Bytes) {
    auto packet = PacketBuilder::ipv6().build();

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 40);
    EXPECT_EQ(getIpProtocol(packet.packet()), 6);
}

TEST(TCPPacketExtensions, AChainOf0And60And6IsBothExtensionsLong) {
    auto packet = PacketBuilder::ipv6().extension(0, 1).extension(60, 2).build();

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 40 + 16 + 24);
    EXPECT_EQ(getIpProtocol(packet.packet()), 6);
}

TEST(TCPPacketExtensions, EachKindOfExtensionHasItsOwnUnit) {
    auto routing = PacketBuilder::ipv6().extension(43, 2).build();
    auto authentication = PacketBuilder::ipv6().extension(51, 4).build();
    auto fragment = PacketBuilder::ipv6().extension(44, 0).build();

    EXPECT_EQ(TCPPacket::ipHeaderSize(routing.packet()), 40 + 24);
    EXPECT_EQ(TCPPacket::ipHeaderSize(authentication.packet()), 40 + 24);
    EXPECT_EQ(TCPPacket::ipHeaderSize(fragment.packet()), 40 + 8);
}

TEST(TCPPacketExtensions, AllKindsCanFollowEachOther) {
    auto packet = PacketBuilder::ipv6()
                      .extension(0, 0)
                      .extension(43, 1)
                      .extension(51, 4)
                      .extension(44, 0)
                      .extension(60, 0)
                      .udp()
                      .build();

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 40 + 8 + 16 + 24 + 8 + 8);
    EXPECT_EQ(getIpProtocol(packet.packet()), 17);
}

TEST(TCPPacketExtensions, TheLengthByteOfAFragmentHeaderIsNotRead) {
    auto packet = PacketBuilder::ipv6().extension(44, 0).build();
    packet.packet()[41] = 100;

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 48);
}

TEST(TCPPacketExtensions, AnUnknownNextHeaderEndsTheWalk) {
    auto packet = PacketBuilder::ipv6().extension(0, 0).protocol(135).build();

    EXPECT_EQ(getIpProtocol(packet.packet()), 135);
    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 48);
}

TEST(TCPPacketExtensions, WhateverIsNotVersion4IsWalkedAsIPv6) {
    auto packet = PacketBuilder::ipv6().extension(0, 0).build();
    packet.packet()[0] = 0x50;

    EXPECT_EQ(getIpProtocol(packet.packet()), 6);
    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 48);
}

TEST(TCPPacketExtensions, ALengthOf128AndAboveLeadsBackwards) {
    auto packet = chainPacket(0);
    writeExtension(packet, 40, 60, 6); // to 96
    writeExtension(packet, 96, 6, -4); // to 72

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 72);
    EXPECT_EQ(getIpProtocol(packet.packet()), 6);
}

TEST(TCPPacketExtensions, ALengthCanLeadBackToTheFirstByteOfThePacket) {
    auto packet = chainPacket(0);
    writeExtension(packet, 40, 43, -6); // to 0
    writeExtension(packet, 0, 6, 8);    // to 72

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 72);
    EXPECT_EQ(getIpProtocol(packet.packet()), 6);
}

TEST(TCPPacketExtensions, AStepThatLeavesTheOffsetWhereItIsGoesOn) {
    auto packet = chainPacket(0);
    writeExtension(packet, 40, 6, -1);

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 40);
    EXPECT_EQ(getIpProtocol(packet.packet()), 6);
}

TEST(TCPPacketExtensions, AnOffsetSeenBeforeWithAnotherNextHeaderGoesOn) {
    auto packet = chainPacket(0);
    writeExtension(packet, 40, 60, 2);  // as hop-by-hop to 64; as authentication header to 56
    writeExtension(packet, 64, 51, -4); // back to 40
    writeExtension(packet, 56, 6, 1);   // to 72

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 72);
    EXPECT_EQ(getIpProtocol(packet.packet()), 6);
}

TEST(TCPPacketExtensions, AChainThatComesBackToItselfEndsAndThePacketPasses) {
    auto packet = chainPacket(0);
    writeExtension(packet, 40, 0, -1);

    expectPassedUnread(packet);
}

TEST(TCPPacketExtensions, ALongLoopOfSeveralHeadersEnds) {
    auto packet = chainPacket(0);
    writeExtension(packet, 40, 60, 3);   // to 72
    writeExtension(packet, 72, 43, 4);   // to 112
    writeExtension(packet, 112, 0, -10); // back to 40, as at the start

    expectPassedUnread(packet);
}

TEST(TCPPacketExtensions, AChainThatStepsInFrontOfThePacketEnds) {
    for (int next : {0, 6, 17, 44, 51}) {
        auto packet = chainPacket(60);
        writeExtension(packet, 40, next, -128);
        expectPassedUnread(packet);
    }
}

TEST(TCPPacketExtensions, AnAuthenticationHeaderThatStepsInFrontOfThePacketEnds) {
    auto packet = chainPacket(51);
    writeExtension(packet, 40, 6, -128);

    expectPassedUnread(packet);
}

TEST(TCPPacketExtensions, AChainThatLeavesTheBufferEnds) {
    auto packet = chainPacket(60);
    for (int offset = 40; offset + 1 < TCPPacket::packetRoom; offset += 1024)
        writeExtension(packet, offset, 60, 127);

    expectPassedUnread(packet);
}

TEST(TCPPacketExtensions, AFragmentChainThatFillsTheBufferEnds) {
    auto packet = chainPacket(44);
    for (int offset = 40; offset < TCPPacket::packetRoom; offset += 8)
        packet.packet()[offset] = 44;

    expectPassedUnread(packet);
}

TEST(TCPPacketExtensions, AChainWhoseTransportHeaderWouldLieOutsideTheBufferEnds) {
    auto packet = chainPacket(60);
    int offset = 40;
    for (; offset + 1024 < TCPPacket::packetRoom - 32; offset += 1024)
        writeExtension(packet, offset, 60, 127);
    writeExtension(packet, offset, 6, (TCPPacket::packetRoom - 16 - offset - 8) / 8);

    expectPassedUnread(packet);
}

TEST(TCPPacketExtensions, AHeaderBeyond64KilobytesIsCutTo16BitsButRead) {
    auto packet = PacketBuilder::ipv6().protocol(60).sizeReadAs(65535).build();
    int offset = 40;
    for (; offset + 1024 < 65536; offset += 1024)
        writeExtension(packet, offset, 60, 127);
    writeExtension(packet, offset, 6, (65544 - offset - 8) / 8);
    packet.packet()[65544 + 12] = 0x50;

    EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), 65544);
    EXPECT_TRUE(TCPPacket::isUsablePacket(packet.packet()));
    EXPECT_EQ(TCPPacket::payload(packet.packet()) - packet.packet(), 28);
}

TEST(TCPPacketExtensions, OfRandomChainsExactlyThoseWithoutAnEndInsideTheBufferAreBroken) {
    std::mt19937 random(7);
    const int kinds[] = {0, 43, 60, 51, 44, 6};
    PacketBuffer packet = chainPacket(0);
    int broken = 0;
    int backwards = 0;
    for (int round = 0; round < 300; ++round) {
        for (int offset = 40; offset < 4000; ++offset) {
            const bool kind = offset % 2 == 0;
            packet.packet()[offset] = static_cast<char>(kind ? kinds[random() % 6] : random() % 256);
        }
        packet.packet()[6] = static_cast<char>(kinds[random() % 5]);

        const PlainWalk walk(packet.packet());

        EXPECT_EQ(TCPPacket::ipHeaderSize(packet.packet()), walk.ends ? walk.offset : 40);
        EXPECT_EQ(getIpProtocol(packet.packet()), walk.ends ? walk.next : 59);
        broken += !walk.ends;
        backwards += walk.ends && walk.wentBack;
    }
    // All kinds of chains were among them.
    EXPECT_GT(broken, 20);
    EXPECT_GT(backwards, 20);
    EXPECT_LT(broken + backwards, 300);
}

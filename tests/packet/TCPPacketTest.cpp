#include "packet/TCPPacket.h"

#include "config/Configuration.h"
#include "support/CapturedLog.h"
#include "support/PacketBuilder.h"
#include "support/ScratchRoot.h"
#include "support/Taken.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>

using testsupport::PacketBuilder;
using testsupport::taken;

TEST(TCPPacket, TheVersionNibbleTellsIPv6) {
    auto v4 = PacketBuilder::ipv4().build();
    auto v6 = PacketBuilder::ipv6().build();

    EXPECT_FALSE(TCPPacket::isVersionIPV6(v4.packet()));
    EXPECT_TRUE(TCPPacket::isVersionIPV6(v6.packet()));
}

TEST(TCPPacket, HeaderSizesFollowTheirLengthFields) {
    auto bare = PacketBuilder::ipv4().build();
    auto optioned = PacketBuilder::ipv4().ipOptions(3).tcpOptions(5).build();
    auto largest = PacketBuilder::ipv4().ipOptions(10).tcpOptions(10).build();

    EXPECT_EQ(TCPPacket::ipHeaderSize(bare.packet()), 20);
    EXPECT_EQ(TCPPacket::tcpHeaderSize(bare.packet()), 20);
    EXPECT_EQ(TCPPacket::ipHeaderSize(optioned.packet()), 32);
    EXPECT_EQ(TCPPacket::tcpHeaderSize(optioned.packet()), 40);
    EXPECT_EQ(TCPPacket::ipHeaderSize(largest.packet()), 60);
    EXPECT_EQ(TCPPacket::tcpHeaderSize(largest.packet()), 60);
}

TEST(TCPPacket, TheProtocolTellsTcpFromUdp) {
    auto tcp4 = PacketBuilder::ipv4().build();
    auto udp4 = PacketBuilder::ipv4().udp().build();
    auto udp6 = PacketBuilder::ipv6().udp().build();
    auto icmp = PacketBuilder::ipv4().protocol(1).build();

    EXPECT_EQ(getIpProtocol(tcp4.packet()), 6);
    EXPECT_TRUE(TCPPacket::isProtocolTCP(tcp4.packet()));
    EXPECT_FALSE(TCPPacket::isProtocolUDP(tcp4.packet()));
    EXPECT_TRUE(TCPPacket::isProtocolUDP(udp4.packet()));
    EXPECT_TRUE(TCPPacket::isProtocolUDP(udp6.packet()));
    EXPECT_EQ(getIpProtocol(icmp.packet()), 1);
}

TEST(TCPPacket, AnIPv4SizeIsReadInNetworkOrder) {
    auto packet = PacketBuilder::ipv4().payload("hello").build();

    EXPECT_EQ(TCPPacket::packetSize(packet.packet()), 45);
    EXPECT_EQ(TCPPacket::payloadSize(packet.packet()), 5);
}

TEST(TCPPacket, AnIPv6LengthIsTakenUnswapped) {
    auto withData = PacketBuilder::ipv6().put(4, std::string("\x02\x25", 2)).build();
    auto bareHeader = PacketBuilder::ipv6().put(4, std::string("\x00\x20", 2)).build();

    EXPECT_EQ(TCPPacket::packetSize(withData.packet()), 0x2502 + 40);
    EXPECT_EQ(TCPPacket::packetSize(bareHeader.packet()), 0x2000 + 40);
    EXPECT_EQ(TCPPacket::payloadSize(bareHeader.packet()), 0x2000 - 20);
}

TEST(TCPPacket, APayloadSizeCanBeNegative) {
    auto packet = PacketBuilder::ipv4().sizeReadAs(30).build();

    EXPECT_EQ(TCPPacket::payloadSize(packet.packet()), -10);
}

TEST(TCPPacket, PayloadWritesOneZeroByteBehindThePayloadAndNothingElse) {
    auto packet = PacketBuilder::ipv4().payload("helloX").sizeReadAs(45).build();
    std::string expected = packet.bytes();
    expected[45] = '\0';

    char* payload = TCPPacket::payload(packet.packet());

    EXPECT_STREQ(payload, "hello");
    EXPECT_EQ(packet.bytes(), expected);
}

TEST(TCPPacket, PayloadOfTheLargestIPv6SizeWritesInsideTheReceiveBuffer) {
    auto packet = PacketBuilder::ipv6().sizeReadAs(40 + 65535).build();
    packet.packet()[40 + 65535] = 'x';

    TCPPacket::payload(packet.packet());

    EXPECT_EQ(packet.packet()[40 + 65535], '\0');
    EXPECT_LT(40 + 65535, TCPPacket::packetRoom);
}

TEST(TCPPacket, PayloadOfAClaimedSizeOfZeroWritesInsideThePacket) {
    auto packet = PacketBuilder::ipv4().sizeReadAs(0).build();

    TCPPacket::payload(packet.packet());

    EXPECT_EQ(packet.packet()[0], '\0');
}

TEST(TCPPacket, APacketThatIsNullIsNotUsable) { EXPECT_FALSE(TCPPacket::isUsablePacket(nullptr)); }

TEST(TCPPacket, OnlyVersions4And6AreUsable) {
    for (int version = 0; version < 16; ++version) {
        auto packet = version == 6 ? PacketBuilder::ipv6().build() : PacketBuilder::ipv4().build();
        packet.packet()[0] = static_cast<char>((packet.packet()[0] & 0x0f) | version << 4);
        EXPECT_EQ(TCPPacket::isUsablePacket(packet.packet()), version == 4 || version == 6) << version;
    }
}

TEST(TCPPacket, UdpPacketsAreNeverUsable) {
    auto v4 = PacketBuilder::ipv4().udp().payload("query").build();
    auto v6 = PacketBuilder::ipv6().udp().payload("query").build();

    EXPECT_FALSE(TCPPacket::isUsablePacket(v4.packet()));
    EXPECT_FALSE(TCPPacket::isUsablePacket(v6.packet()));
}

TEST(TCPPacket, HeadersThatFillTheSizeAreUsableAndLargerOnesAreNot) {
    auto exact4 = PacketBuilder::ipv4().sizeReadAs(40).build();
    auto short4 = PacketBuilder::ipv4().sizeReadAs(39).build();
    auto exact6 = PacketBuilder::ipv6().sizeReadAs(60).build();
    auto short6 = PacketBuilder::ipv6().sizeReadAs(59).build();

    EXPECT_TRUE(TCPPacket::isUsablePacket(exact4.packet()));
    EXPECT_FALSE(TCPPacket::isUsablePacket(short4.packet()));
    EXPECT_TRUE(TCPPacket::isUsablePacket(exact6.packet()));
    EXPECT_FALSE(TCPPacket::isUsablePacket(short6.packet()));
}

TEST(TCPPacket, TheIPv6SizeIsCutTo16BitsWhenUsabilityIsTested) {
    auto wrapped = PacketBuilder::ipv6().sizeReadAs(65536 + 39).build();
    auto largest = PacketBuilder::ipv6().sizeReadAs(65535).build();

    EXPECT_FALSE(TCPPacket::isUsablePacket(wrapped.packet()));
    EXPECT_TRUE(TCPPacket::isUsablePacket(largest.packet()));
}

TEST(TCPPacket, IPv4AddressesAndPortsComeInHostOrder) {
    auto packet = PacketBuilder::ipv4().from("127.0.0.1", 50001).to("93.184.216.34", 443).build();
    int srcPort = 0;
    int dstPort = 0;

    EXPECT_EQ(TCPPacket::srcIPAddress(packet.packet(), srcPort), 0x7f000001u);
    EXPECT_EQ(TCPPacket::dstIPAddress(packet.packet(), dstPort), 0x5db8d822u);
    EXPECT_EQ(srcPort, 50001);
    EXPECT_EQ(dstPort, 443);
}

TEST(TCPPacket, PortsAreReadBehindIPv4OptionsAndExtensionHeaders) {
    auto v4 = PacketBuilder::ipv4().ipOptions(4).to("10.1.1.1", 8080).build();
    auto v6 = PacketBuilder::ipv6().extension(0, 1).extension(60, 0).to("2001:db8::9", 8443).build();
    int port = 0;

    TCPPacket::dstIPAddress(v4.packet(), port);
    EXPECT_EQ(port, 8080);
    TCPPacket::dstIPAddressIpv6(v6.packet(), port);
    EXPECT_EQ(port, 8443);
}

TEST(TCPPacket, IPv6AddressesStayAsOnTheWire) {
    auto packet = PacketBuilder::ipv6().from("2001:db8::aa", 1000).to("fe80::1", 2000).build();
    int srcPort = 0;
    int dstPort = 0;
    in6_addr expectedSrc, expectedDst;
    inet_pton(AF_INET6, "2001:db8::aa", &expectedSrc);
    inet_pton(AF_INET6, "fe80::1", &expectedDst);

    const in6_addr src = TCPPacket::srcIPAddressIpv6(packet.packet(), srcPort);
    const in6_addr dst = TCPPacket::dstIPAddressIpv6(packet.packet(), dstPort);

    EXPECT_EQ(std::memcmp(&src, &expectedSrc, sizeof src), 0);
    EXPECT_EQ(std::memcmp(&dst, &expectedDst, sizeof dst), 0);
    EXPECT_EQ(srcPort, 1000);
    EXPECT_EQ(dstPort, 2000);
}

TEST(TCPPacket, AddressesAreFormattedWithTheFirstOctetFirst) {
    EXPECT_EQ(taken(TCPPacket::formatIpAddress(0x7f000001)), "127.0.0.1");
    EXPECT_EQ(taken(TCPPacket::formatIpAddress(0xfffefdfc)), "255.254.253.252");
    EXPECT_EQ(taken(TCPPacket::formatIpAddress(0)), "0.0.0.0");
}

TEST(TCPPacket, IPv6AddressesAreFormattedWithoutShorteningInBrackets) {
    in6_addr address;
    inet_pton(AF_INET6, "2001:db8::ff01", &address);

    EXPECT_EQ(taken(TCPPacket::formatIpAddressIpv6(address)), "[2001:0db8:0000:0000:0000:0000:0000:ff01]");
}

TEST(TCPPacket, ARedirectFitsOnlyIfItsTextIsStrictlyShorterThanThePayload) {
    const std::string url = "http://block.example/";
    const std::string text = "HTTP/1.1 302 Found\r\nLocation: " + url + "\r\nConnection: close\r\n\r\n";
    auto shorter = PacketBuilder::ipv4().payload(std::string(text.size() - 1, 'x')).build();
    auto equal = PacketBuilder::ipv4().payload(std::string(text.size(), 'x')).build();
    auto longer = PacketBuilder::ipv4().payload(std::string(text.size() + 1, 'x')).build();

    EXPECT_FALSE(TCPPacket::redirectPacket(shorter.packet(), url.c_str()));
    EXPECT_FALSE(TCPPacket::redirectPacket(equal.packet(), url.c_str()));
    EXPECT_TRUE(TCPPacket::redirectPacket(longer.packet(), url.c_str()));
}

TEST(TCPPacket, TheRedirectFitTestIsLoggedAtLevel32Alone) {
    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
    auto packet = PacketBuilder::ipv4().payload(std::string(100, 'x')).build();

    Configuration::setLogLevel(~32);
    TCPPacket::redirectPacket(packet.packet(), "http://block.example/");
    EXPECT_TRUE(log.messages().empty());

    Configuration::setLogLevel(32);
    TCPPacket::redirectPacket(packet.packet(), "http://block.example/");
    const std::vector<std::string> expected = {
        "redirectpacket - length: 74 ; payload size: 100 ; diff: 26 ; total packet size: 140 ; redirect to: "
        "HTTP/1.1 302 Found\r\nLocation: http://block.example/\r\nConnection: close\r\n\r\n"};
    EXPECT_EQ(log.messages(), expected);
}

TEST(TCPPacket, TheRedirectFitTestLeavesThePacketAlone) {
    auto packet = PacketBuilder::ipv4().payload(std::string(300, 'x')).build();
    const std::string before = packet.bytes();

    TCPPacket::redirectPacket(packet.packet(), "http://block.example/");

    EXPECT_EQ(packet.bytes(), before);
}

TEST(TCPPacket, TheUnswappedIPv6LengthDecidesWhetherARedirectFits) {
    auto bareAck = PacketBuilder::ipv6().tcpOptions(3).build();

    EXPECT_TRUE(TCPPacket::redirectPacket(bareAck.packet(), "http://block.example/"));
}

TEST(TCPPacket, LogPacketLogsEndsAndProtocolWithAllLogBitsOff) {
    testsupport::CapturedLog log;
    auto tcp = PacketBuilder::ipv4().build();
    auto udp = PacketBuilder::ipv4().udp().build();
    auto other = PacketBuilder::ipv4().protocol(47).build();

    TCPPacket::logPacket(tcp.packet());
    TCPPacket::logPacket(udp.packet());
    TCPPacket::logPacket(other.packet());

    EXPECT_TRUE(log.holds("10.0.0.2:50000 -> 93.184.216.34:80 protocol: TCP\n"));
    EXPECT_TRUE(log.holds("10.0.0.2:50000 -> 93.184.216.34:80 protocol: UDP\n"));
    EXPECT_TRUE(log.holds("10.0.0.2:50000 -> 93.184.216.34:80 protocol: ???\n"));
}

TEST(TCPPacket, LogPacketReadsIPv4PositionsOfAnIPv6Packet) {
    testsupport::CapturedLog log;
    auto packet = PacketBuilder::ipv6().from("2001:db8:102:304:506:708:90a:b0c", 50000).build();

    TCPPacket::logPacket(packet.packet());

    EXPECT_TRUE(log.holds("1.2.3.4:50000 -> 5.6.7.8:80 protocol: ???\n"));
}

TEST(TCPPacket, TheChecksumIsTheInternetChecksum) {
    const unsigned char known[] = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
                                   0x00, 0x00, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};
    unsigned short words[10];
    std::memcpy(words, known, sizeof known);

    EXPECT_EQ(ntohs(TCPPacket::in_cksum(words, sizeof known)), 0xb861);
}

TEST(TCPPacket, TheChecksumAddsALastOddByteAsItStands) {
    const unsigned char bytes[] = {0x01, 0x02, 0x03, 0xee};
    unsigned short words[2];
    std::memcpy(words, bytes, sizeof bytes);

    EXPECT_EQ(TCPPacket::in_cksum(words, 3), static_cast<unsigned short>(~(0x0201 + 0x0003)));
    EXPECT_EQ(TCPPacket::in_cksum(words, 0), 0xffff);
}

TEST(TCPPacket, TheChecksumFoldsItsCarriesTwice) {
    unsigned short words[65536 / 2];
    std::memset(words, 0xff, sizeof words);

    EXPECT_EQ(TCPPacket::in_cksum(words, sizeof words), 0);

    // 0x1ffff: its first fold gives 0x10000, which has a carry of its own.
    unsigned short carriesTwice[] = {0xffff, 0xffff, 1};
    EXPECT_EQ(TCPPacket::in_cksum(carriesTwice, sizeof carriesTwice), 0xfffe);
}

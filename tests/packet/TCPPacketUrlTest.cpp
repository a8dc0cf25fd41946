#include "packet/TCPPacket.h"

#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"
#include "support/Taken.h"

#include <cstring>
#include <gtest/gtest.h>

using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuilder;
using testsupport::taken;

namespace {

std::string httpUrlOf(const std::string& payload) {
    auto packet = PacketBuilder::ipv4().payload(payload).build();
    return taken(TCPPacket::httpURL(packet.packet()));
}

std::string httpsUrlOf(const std::string& payload) {
    auto packet = PacketBuilder::ipv4().to("93.184.216.34", 443).payload(payload).build();
    return taken(TCPPacket::httpsURL(packet.packet()));
}

} // namespace

TEST(TCPPacketUrl, APacketWithAZeroPayloadGivesNoUrl) {
    EXPECT_EQ(httpUrlOf(""), "(null)");
    EXPECT_EQ(httpsUrlOf(""), "(null)");
}

TEST(TCPPacketUrl, AGetRequestGivesHostAndPath) {
    EXPECT_EQ(httpUrlOf(getRequest("/a/b.html")), "http://www.example.org/a/b.html");
}

TEST(TCPPacketUrl, TheQueryStringIsKept) {
    EXPECT_EQ(httpUrlOf(getRequest("/find?q=a/b&n=1#top")), "http://www.example.org/find?q=a/b&n=1#top");
}

TEST(TCPPacketUrl, ARootRequestWithAPortInTheHostHeaderGivesASingleSlash) {
    EXPECT_EQ(httpUrlOf(getRequest("/", "www.example.org:8080")), "http://www.example.org:8080/");
}

TEST(TCPPacketUrl, GetAtPayloadOffset26IsFoundAndAt27IsNot) {
    EXPECT_EQ(httpUrlOf(std::string(26, 'x') + getRequest()), "http://www.example.org/");
    EXPECT_EQ(httpUrlOf(std::string(27, 'x') + getRequest()), "(null)");
}

TEST(TCPPacketUrl, AZeroByteInFrontOfGetHidesIt) {
    EXPECT_EQ(httpUrlOf(std::string("x\0", 2) + getRequest()), "(null)");
}

TEST(TCPPacketUrl, OnlyTheGetMethodIsLookedAt) {
    EXPECT_EQ(httpUrlOf("POST / HTTP/1.1\r\nHost: www.example.org\r\n\r\n"), "(null)");
    EXPECT_EQ(httpUrlOf("HEAD / HTTP/1.1\r\nHost: www.example.org\r\n\r\n"), "(null)");
    EXPECT_EQ(httpUrlOf("get / HTTP/1.1\r\nHost: www.example.org\r\n\r\n"), "(null)");
}

TEST(TCPPacketUrl, ARequestWithoutSlashOrVersionOrHostGivesNoUrl) {
    EXPECT_EQ(httpUrlOf("GET index HTTP"), "(null)");
    EXPECT_EQ(httpUrlOf("GET /index\r\nHost: www.example.org\r\n\r\n"), "(null)");
    EXPECT_EQ(httpUrlOf("GET /index HTTP/1.1\r\nAccept: */*\r\n\r\n"), "(null)");
}

TEST(TCPPacketUrl, TheSlashIsSoughtBehindGet) {
    EXPECT_EQ(httpUrlOf("a/b GET /index HTTP/1.1\r\nHost: www.example.org\r\n\r\n"),
              "http://www.example.org/index");
}

TEST(TCPPacketUrl, TheVersionIsSoughtBehindThePathsBeginning) {
    EXPECT_EQ(httpUrlOf("GET HTTP/index HTTP/1.1\r\nHost: www.example.org\r\n\r\n"),
              "http://www.example.org/index");
}

TEST(TCPPacketUrl, TheHostHeaderIsSoughtBehindThePathsEnd) {
    EXPECT_EQ(httpUrlOf("GET /Host:of/it HTTP/1.1\r\nHost: www.example.org\r\n\r\n"),
              "http://www.example.org/Host:of/it");
}

TEST(TCPPacketUrl, AHostHeaderInLowerCaseIsNotFound) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\r\nhost: www.example.org\r\n\r\n"), "(null)");
}

TEST(TCPPacketUrl, AnEarlierHostInAnotherHeaderIsTakenForIt) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\r\nX-Forwarded-Host: proxy.example\r\nHost: www.example.org\r\n\r\n"),
              "http://proxy.example/");
}

TEST(TCPPacketUrl, AHostLineThatEndsInABareLineFeedIsAccepted) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\nHost: www.example.org\n\n"), "http://www.example.org/");
}

TEST(TCPPacketUrl, AHostLineWithNoLineEndAtAllGivesNoUrl) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\r\nHost: www.example.org"), "(null)");
}

TEST(TCPPacketUrl, ALaterCarriageReturnCountsBeforeAnEarlierLineFeed) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\nHost: a.example\nX: y\r\n"), "http://a.example\nX: y/");
}

TEST(TCPPacketUrl, AnEmptyHostLineTakesTheNextLinesText) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\r\nHost: \r\nAccept: */*\r\n\r\n"), "http://Accept: */*/");
}

TEST(TCPPacketUrl, AHostWithoutABlankBehindTheColonTakesTheNextLinesText) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\r\nHost:a.example\r\nAccept: */*\r\n\r\n"), "http://Accept: */*/");
}

TEST(TCPPacketUrl, AHostLineBehindWhichOnlyWhiteSpaceFollowsGivesNoUrl) {
    EXPECT_EQ(httpUrlOf("GET / HTTP/1.1\r\nHost: \r\n\r\n"), "(null)");
}

TEST(TCPPacketUrl, AnAbsoluteFormRequestKeepsItsSchemeAndHostInThePath) {
    EXPECT_EQ(httpUrlOf("GET http://www.example.org/a HTTP/1.1\r\nHost: www.example.org\r\n\r\n"),
              "http://www.example.org//www.example.org/a");
}

TEST(TCPPacketUrl, TheSearchStopsAtTheEndOfThePayload) {
    const std::string request = getRequest();
    auto packet = PacketBuilder::ipv4().payload(request).sizeReadAs(40 + 20).build();

    EXPECT_EQ(taken(TCPPacket::httpURL(packet.packet())), "(null)");
}

TEST(TCPPacketUrl, AGetRequestOverIPv6IsReadBehindItsExtensionHeaders) {
    auto packet = PacketBuilder::ipv6().extension(0, 0).extension(60, 1).payload(getRequest("/six")).build();

    EXPECT_EQ(taken(TCPPacket::httpURL(packet.packet())), "http://www.example.org/six");
}

TEST(TCPPacketUrl, ANegativePayloadSizeWithoutAnyZeroByteInTheBufferGivesNoUrl) {
    auto packet = PacketBuilder::ipv4().payload("GET /").sizeReadAs(30).build();
    std::memset(packet.packet() + 45, 'x', static_cast<std::size_t>(TCPPacket::packetRoom - 45));

    EXPECT_EQ(taken(TCPPacket::httpURL(packet.packet())), "(null)");
}

TEST(TCPPacketUrl, AnOpenHostLineAtTheVeryEndOfTheLargestPacketStaysInsideTheBuffer) {
    auto packet = PacketBuilder::ipv6().payload("GET / HTTP\nHost: ").sizeReadAs(40 + 65535).build();
    char* behind = packet.packet() + packet.bytes().size();
    std::memset(behind, 'x', static_cast<std::size_t>(packet.packet() + TCPPacket::packetRoom - behind));

    EXPECT_EQ(taken(TCPPacket::httpURL(packet.packet())), "(null)");
}

TEST(TCPPacketUrl, AClientHelloGivesItsServerName) {
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().build()), "https://www.example.org");
}

TEST(TCPPacketUrl, AClientHelloWithoutAServerNameGivesNoUrl) {
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().withoutServerName().build()), "(null)");
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().withoutExtensions().build()), "(null)");
}

TEST(TCPPacketUrl, AnSsl30HandshakeRecordGivesTheBareDestinationAddress) {
    EXPECT_EQ(httpsUrlOf(std::string("\x16\x03\x00\x00\x04", 5)), "93.184.216.34");
}

TEST(TCPPacketUrl, AnSsl30HandshakeRecordOverIPv6GivesTheAddressInBrackets) {
    auto packet = PacketBuilder::ipv6().payload(std::string("\x16\x03\x00\x00\x04", 5)).build();

    EXPECT_EQ(taken(TCPPacket::httpsURL(packet.packet())), "[2001:0db8:0000:0000:0000:0000:0000:0022]");
}

TEST(TCPPacketUrl, AnEmptyNameOrOneThatBeginsWithAZeroByteGivesTheBareDestinationAddress) {
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().serverName("").build()), "93.184.216.34");
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().serverName(std::string("\0abc", 4)).build()), "93.184.216.34");
}

TEST(TCPPacketUrl, AServerNameMayHaveOneLetter) {
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().serverName("a").build()), "https://a");
}

TEST(TCPPacketUrl, AServerNameOf254BytesIsTakenAndOneOf255IsNot) {
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().serverName(std::string(254, 'a')).build()),
              "https://" + std::string(254, 'a'));
    EXPECT_EQ(httpsUrlOf(ClientHelloBuilder().serverName(std::string(255, 'a')).build()), "(null)");
}

TEST(TCPPacketUrl, TheFirstSegmentOfASplitClientHelloGivesTheNameOnlyIfItHoldsIt) {
    const ClientHelloBuilder hello = ClientHelloBuilder().extensionAfter(21, std::string(1400, 'p'));
    const std::size_t nameEnd = hello.build().find("www.example.org") + 15;

    EXPECT_EQ(httpsUrlOf(hello.split(nameEnd).first), "https://www.example.org");
    EXPECT_EQ(httpsUrlOf(hello.split(nameEnd - 1).first), "(null)");
    EXPECT_EQ(httpsUrlOf(hello.split(nameEnd).second), "(null)");
}

TEST(TCPPacketUrl, AnIPv6HelloThatEndsBehindThePacketIsReadFromWhatTheBufferHolds) {
    const auto [first, rest] = ClientHelloBuilder().split(60);
    auto packet = PacketBuilder::ipv6().payload(first).sizeReadAs(40 + 20 + 4000).build();
    std::memcpy(packet.packet() + 60 + first.size(), rest.data(), rest.size());

    EXPECT_EQ(taken(TCPPacket::httpsURL(packet.packet())), "https://www.example.org");
}

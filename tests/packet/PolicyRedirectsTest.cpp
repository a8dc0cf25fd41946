// Redirects of blocked connections, and what the verdicts of a connection's record write where.

#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "packet/HijackPacket.h"
#include "support/ClientHelloBuilder.h"
#include "support/VerdictWorld.h"

#include <arpa/inet.h>

#include <cstring>

using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuilder;

namespace {

class PolicyRedirects : public testsupport::VerdictWorld {};

} // namespace

TEST_F(PolicyRedirects, ABlockedPlainConnectionIsRedirectedInBothDirections) {
    names.answer("block.example", AF_INET, {"198.51.100.7"});
    const std::string longPath = "/" + std::string(300, 'p');
    outbound(get(longPath));
    HijackPacket::resolve(("http://www.example.org" + longPath).c_str(), "http://block.example/page", 30);
    Configuration::setLogLevel(64);

    EXPECT_EQ(outbound(get(longPath)), verdictRedirect);
    EXPECT_STREQ(result.redirectUrl, "http://block.example/page");
    EXPECT_EQ(result.redirectIsHttps, 0);
    EXPECT_EQ(result.redirectAddress, inet_addr("198.51.100.7"));
    EXPECT_EQ(result.urlSeen, 0);
    EXPECT_EQ(inbound(reply(80, std::string(300, 'x'))), verdictRedirect);
    EXPECT_STREQ(result.redirectUrl, "http://block.example/page");
    EXPECT_EQ(log.countContaining(
                  "--[0x55667788] http packet redirected and repeated: 6 (to: http://block.example/page)"),
              2);
}

TEST_F(PolicyRedirects, APlainRedirectTakesTheMarkOfATlsOneAway) {
    const std::string longPath = "/" + std::string(300, 'p');
    outbound(get(longPath));
    HijackPacket::resolve(("http://www.example.org" + longPath).c_str(), "http://block.example/", 30);
    auto packet = get(longPath).build();
    result.redirectIsHttps = 1;

    EXPECT_EQ(policyEvaluate(packet.packet(), &result, nullptr, directionOutbound), verdictRedirect);

    EXPECT_EQ(result.redirectIsHttps, 0);
}

TEST_F(PolicyRedirects, ADeliveredRedirectMeetsLaterPacketsUntilItsTimeIsUp) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://10.9.8.7/", 30);

    advance(30000000);
    EXPECT_EQ(inbound(reply(443)), verdictRedirect);
    EXPECT_EQ(inbound(reply(443)), verdictRedirect);
    advance(1);
    EXPECT_EQ(inbound(reply(443)), verdictPass);
}

TEST_F(PolicyRedirects, AnInboundPacketWithoutRoomForThePlainRedirectPasses) {
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);
    Configuration::setLogLevel(64);

    EXPECT_EQ(inbound(reply(80, "short")), verdictPass);

    EXPECT_TRUE(log.holds("--[0x55667788] Inbound TCP packet is too small to redirect.\n"));
    EXPECT_STREQ(result.redirectUrl, "");
}

TEST_F(PolicyRedirects, ARedirectTextAsLongAsThePayloadDoesNotFit) {
    const std::string block = "http://block.example/";
    const std::size_t text =
        ("HTTP/1.1 302 Found\r\nLocation: " + block + "\r\nConnection: close\r\n\r\n").size();
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", block.c_str(), 30);

    EXPECT_EQ(inbound(reply(80, std::string(text, 'x'))), verdictPass);
    EXPECT_EQ(inbound(reply(80, std::string(text + 1, 'x'))), verdictRedirect);
}

TEST_F(PolicyRedirects, AShortGetWithoutRoomForTheRedirectStartsOneMoreRecordAndQuery) {
    outbound(get("/"));
    HijackPacket::resolve("http://www.example.org/", "http://block.example/page?with=a-long-query-string",
                          30);
    Configuration::setLogLevel(1 | 64);

    EXPECT_EQ(outbound(get("/")), verdictHold);

    EXPECT_TRUE(log.holds("--[0x55667788] Inbound TCP packet is too small to redirect.\n"));
    EXPECT_TRUE(wasQueried("http://www.example.org/"));
    EXPECT_TRUE(HijackPacket::resolve("http://www.example.org/", nullptr));
}

TEST_F(PolicyRedirects, AnOutboundPacketThatDoesNotFitAndHoldsNoUrlPasses) {
    outbound(get("/"));
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().payload("body")), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PolicyRedirects, ATlsRedirectActsOnAnyPacketOfTheConnectionWhateverItsSize) {
    names.answer("block.example", AF_INET, {"198.51.100.7"});
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "https://block.example/page", 30);
    Configuration::setLogLevel(64);

    EXPECT_EQ(inbound(PacketBuilder::ipv4().to("93.184.216.34", 443).reversed()), verdictRedirect);

    EXPECT_STREQ(result.redirectUrl, "https://block.example/page");
    EXPECT_EQ(result.redirectIsHttps, 1);
    EXPECT_EQ(result.redirectAddress, inet_addr("198.51.100.7"));
    EXPECT_TRUE(log.holds("--[0x55667788] https redirect: res=6 to: https://block.example/page"));
}

TEST_F(PolicyRedirects, TheHttpsRedirectLineShowsTheIPv6PositionsWhateverTheVersion) {
    outbound(PacketBuilder::ipv6().to("2001:db8::22", 443).payload(ClientHelloBuilder().build()));
    HijackPacket::resolve("https://www.example.org", "http://10.9.8.7/", 30);
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://10.9.8.7/", 30);
    Configuration::setLogLevel(64);

    outbound(PacketBuilder::ipv6().to("2001:db8::22", 443));
    EXPECT_TRUE(log.holds("--[0x55667788] https redirect src [2001:0db8:0000:0000:0000:0000:0000:0002]"
                          " dst [2001:0db8:0000:0000:0000:0000:0000:0022]"));

    outbound(PacketBuilder::ipv4().to("93.184.216.34", 443));
    EXPECT_EQ(
        log.countContaining("--[0x55667788] https redirect src [4006:0000:0a00:0002:5db8:d822:c350:01bb]"),
        1);
}

TEST_F(PolicyRedirects, AnIPv6RedirectLooksUpTheIPv6Address) {
    names.answer("block.example", AF_INET6, {"2001:db8::beef"});
    names.answer("block.example", AF_INET, {"198.51.100.7"});
    const auto hello6 = PacketBuilder::ipv6().to("2001:db8::22", 443).payload(ClientHelloBuilder().build());
    ASSERT_EQ(outbound(hello6), verdictHold);
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);

    EXPECT_EQ(outbound(hello6), verdictRedirect);

    in6_addr expected;
    inet_pton(AF_INET6, "2001:db8::beef", &expected);
    EXPECT_EQ(std::memcmp(&result.redirectAddressIpv6, &expected, sizeof expected), 0);
    EXPECT_EQ(result.redirectAddress, 0u);
}

TEST_F(PolicyRedirects, ARedirectWithoutAResultRecordIsStillTheVerdict) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    auto packet = reply(443).build();

    EXPECT_EQ(tcpInBoundCallback(packet.packet(), nullptr), verdictRedirect);
    for (const std::string& name : names.asked())
        EXPECT_NE(name, "block.example");
}

TEST_F(PolicyRedirects, ANullResultRecordIsWrittenToInNoVerdictOfARecord) {
    auto longAnswer = reply(80, std::string(300, 'x')).build();
    auto shortAnswer = reply().build();
    outbound(get());
    EXPECT_EQ(tcpInBoundCallback(shortAnswer.packet(), nullptr), verdictDrop);
    HijackPacket::resolve("http://www.example.org/", nullptr, 30);
    EXPECT_EQ(tcpInBoundCallback(shortAnswer.packet(), nullptr), verdictPass);

    advance(30000001);
    outbound(get());
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);
    EXPECT_EQ(tcpInBoundCallback(longAnswer.packet(), nullptr), verdictRedirect);
    EXPECT_EQ(tcpInBoundCallback(shortAnswer.packet(), nullptr), verdictPass);
}

TEST_F(PolicyRedirects, WithoutAResultRecordTheAddressesOfATlsRedirectAreNotLogged) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    Configuration::setLogLevel(64);
    auto packet = reply(443).build();

    EXPECT_EQ(tcpInBoundCallback(packet.packet(), nullptr), verdictRedirect);

    EXPECT_EQ(log.messages(),
              std::vector<std::string>{"--[0x0] https redirect: res=6 to: http://block.example/"});
}

TEST_F(PolicyRedirects, AFailedNameLookupLeavesTheAddress0AndTheVerdict) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://nowhere.example/", 30);

    EXPECT_EQ(outbound(hello()), verdictRedirect);
    EXPECT_EQ(result.redirectAddress, 0u);
    EXPECT_STREQ(result.redirectUrl, "http://nowhere.example/");
}

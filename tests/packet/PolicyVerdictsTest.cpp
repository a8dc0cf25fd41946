#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "config/FilterServer.h"
#include "gp/GPString.h"
#include "packet/HijackPacket.h"
#include "support/ClientHelloBuilder.h"
#include "support/VerdictWorld.h"

#include <arpa/inet.h>

#include <cstring>

using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuilder;

namespace {

// The policy behind the cheap tests: the connection's record, or a URL and its query.
class PolicyVerdicts : public testsupport::VerdictWorld {
protected:
    int policy(const PacketBuilder& packet, int direction) {
        auto buffer = packet.build();
        result = {};
        return policyEvaluate(buffer.packet(), &result, nullptr, direction);
    }
};

} // namespace

TEST_F(PolicyVerdicts, TheHandshakePassesWithoutAUrl) {
    EXPECT_EQ(outbound(PacketBuilder::ipv4()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
    EXPECT_EQ(inbound(PacketBuilder::ipv4().reversed()), verdictPass);
}

TEST_F(PolicyVerdicts, APacketWithAUrlIsHeldAndItsQueryGoesOut) {
    Configuration::setLogLevel(1 | 64);

    EXPECT_EQ(outbound(get("/a?b=c")), verdictHold);

    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(result.packetId, 0x1122334455667788u);
    EXPECT_TRUE(log.holds("checking url http://www.example.org/a?b=c"));
    EXPECT_TRUE(wasQueried("http://www.example.org/a?b=c"));
    EXPECT_TRUE(
        log.holds("--[0x55667788] policyEvaluate QUERYING url : http://www.example.org/a?b=c --result=7"));
    EXPECT_TRUE(hasRecord(get()));
}

TEST_F(PolicyVerdicts, AnIPv6UrlIsLoggedUnderATextOfItsOwn) {
    Configuration::setLogLevel(1);

    EXPECT_EQ(outbound(PacketBuilder::ipv6().payload(getRequest())), verdictHold);

    EXPECT_TRUE(log.holds("Ipv6 checking url http://www.example.org/"));
}

TEST_F(PolicyVerdicts, InboundPacketsAreNeverSearchedForAUrl) {
    EXPECT_EQ(inbound(reply(80, getRequest())), verdictPass);

    EXPECT_EQ(result.urlSeen, 0);
    EXPECT_FALSE(hasRecord(get()));
}

TEST_F(PolicyVerdicts, WhileTheQueryRunsAnswersAreDroppedAndTheClientsPacketsHeld) {
    outbound(get());
    Configuration::setLogLevel(64);

    EXPECT_EQ(inbound(reply()), verdictDrop);
    EXPECT_TRUE(log.holds("--[0x55667788] hijack packet exists but not resolved: 0"));
    EXPECT_EQ(outbound(get()), verdictHold);
    EXPECT_TRUE(log.holds("--[0x55667788] hijack packet exists but not resolved: 7"));
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PolicyVerdicts, WhileAPlainQueryRunsPacketsWithoutPayloadPass) {
    outbound(get());

    EXPECT_EQ(inbound(PacketBuilder::ipv4().reversed()), verdictPass);
    EXPECT_EQ(outbound(PacketBuilder::ipv4()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PolicyVerdicts, WhileATlsQueryRunsPacketsWithoutPayloadAreHeldAndDroppedToo) {
    outbound(hello());

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443)), verdictHold);
    EXPECT_EQ(inbound(PacketBuilder::ipv4().to("93.184.216.34", 443).reversed()), verdictDrop);
}

TEST_F(PolicyVerdicts, AnAllowedPlainConnectionPassesWithUrlSeenUntilItsFirst30SecondsAreOver) {
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", nullptr, -1);
    Configuration::setLogLevel(64);

    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(inbound(reply()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_TRUE(log.holds("--[0x55667788] packet resolved but not redirected: 1"));

    advance(30000001);
    EXPECT_EQ(inbound(reply()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
    EXPECT_EQ(outbound(get()), verdictHold);
}

TEST_F(PolicyVerdicts, AnAllowedRecordWithALifeOf0PassesWithoutUrlSeen) {
    outbound(get());
    // The only way there: so many seconds that their microseconds come round to 0.
    HijackPacket::resolve("http://www.example.org/", nullptr, 1 << 26);

    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PolicyVerdicts, ABlockedPlainConnectionIsRedirectedInBothDirections) {
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

TEST_F(PolicyVerdicts, APlainRedirectTakesTheMarkOfATlsOneAway) {
    const std::string longPath = "/" + std::string(300, 'p');
    outbound(get(longPath));
    HijackPacket::resolve(("http://www.example.org" + longPath).c_str(), "http://block.example/", 30);
    auto packet = get(longPath).build();
    result.redirectIsHttps = 1;

    EXPECT_EQ(policyEvaluate(packet.packet(), &result, nullptr, directionOutbound), verdictRedirect);

    EXPECT_EQ(result.redirectIsHttps, 0);
}

TEST_F(PolicyVerdicts, APacketWithoutAUrlTakesTheMarkOfOneAway) {
    auto packet = PacketBuilder::ipv4().build();
    result.urlSeen = 1;

    EXPECT_EQ(policyEvaluate(packet.packet(), &result, nullptr, directionOutbound), verdictPass);

    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PolicyVerdicts, ADeliveredRedirectMeetsLaterPacketsUntilItsTimeIsUp) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://10.9.8.7/", 30);

    advance(30000000);
    EXPECT_EQ(inbound(reply(443)), verdictRedirect);
    EXPECT_EQ(inbound(reply(443)), verdictRedirect);
    advance(1);
    EXPECT_EQ(inbound(reply(443)), verdictPass);
}

TEST_F(PolicyVerdicts, AnInboundPacketWithoutRoomForThePlainRedirectPasses) {
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);
    Configuration::setLogLevel(64);

    EXPECT_EQ(inbound(reply(80, "short")), verdictPass);

    EXPECT_TRUE(log.holds("--[0x55667788] Inbound TCP packet is too small to redirect.\n"));
    EXPECT_STREQ(result.redirectUrl, "");
}

TEST_F(PolicyVerdicts, ARedirectTextAsLongAsThePayloadDoesNotFit) {
    const std::string block = "http://block.example/";
    const std::size_t text =
        ("HTTP/1.1 302 Found\r\nLocation: " + block + "\r\nConnection: close\r\n\r\n").size();
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", block.c_str(), 30);

    EXPECT_EQ(inbound(reply(80, std::string(text, 'x'))), verdictPass);
    EXPECT_EQ(inbound(reply(80, std::string(text + 1, 'x'))), verdictRedirect);
}

TEST_F(PolicyVerdicts, AShortGetWithoutRoomForTheRedirectStartsOneMoreRecordAndQuery) {
    outbound(get("/"));
    HijackPacket::resolve("http://www.example.org/", "http://block.example/page?with=a-long-query-string",
                          30);
    Configuration::setLogLevel(1 | 64);

    EXPECT_EQ(outbound(get("/")), verdictHold);

    EXPECT_TRUE(log.holds("--[0x55667788] Inbound TCP packet is too small to redirect.\n"));
    EXPECT_TRUE(wasQueried("http://www.example.org/"));
    EXPECT_TRUE(HijackPacket::resolve("http://www.example.org/", nullptr));
}

TEST_F(PolicyVerdicts, AnOutboundPacketThatDoesNotFitAndHoldsNoUrlPasses) {
    outbound(get("/"));
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().payload("body")), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PolicyVerdicts, ATlsRedirectActsOnAnyPacketOfTheConnectionWhateverItsSize) {
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

TEST_F(PolicyVerdicts, TheHttpsRedirectLineShowsTheIPv6PositionsWhateverTheVersion) {
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

TEST_F(PolicyVerdicts, AnIPv6RedirectLooksUpTheIPv6Address) {
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

TEST_F(PolicyVerdicts, ARedirectWithoutAResultRecordIsStillTheVerdict) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    auto packet = reply(443).build();

    EXPECT_EQ(tcpInBoundCallback(packet.packet(), nullptr), verdictRedirect);
    for (const std::string& name : names.asked())
        EXPECT_NE(name, "block.example");
}

TEST_F(PolicyVerdicts, ANullResultRecordIsWrittenToInNoVerdictOfARecord) {
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

TEST_F(PolicyVerdicts, WithoutAResultRecordTheAddressesOfATlsRedirectAreNotLogged) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    Configuration::setLogLevel(64);
    auto packet = reply(443).build();

    EXPECT_EQ(tcpInBoundCallback(packet.packet(), nullptr), verdictRedirect);

    EXPECT_EQ(log.messages(),
              std::vector<std::string>{"--[0x0] https redirect: res=6 to: http://block.example/"});
}

TEST_F(PolicyVerdicts, TheRecordIsThereBeforeItsQueryGoesOut) {
    Configuration::setLogLevel(1 | 64 | 128);

    EXPECT_EQ(outbound(get()), verdictHold);

    std::string order;
    for (const std::string& line : log.messages()) {
        if (line.find("inBypassedHostNames parsed host") == 0) order += "host ";
        if (line.find("checking url") == 0) order += "checking ";
        if (line.find("-++ added") == 0) order += "record ";
        if (line.find("url being checked") == 0) order += "query ";
        if (line.find("--[0x55667788] policyEvaluate QUERYING") == 0) order += "hold ";
    }
    EXPECT_EQ(order, "host checking record query hold ");
}

TEST_F(PolicyVerdicts, VerdictsAreLoggedAtLevel64Alone) {
    Configuration::setLogLevel(~(1 | 64));
    const std::string longPath = "/" + std::string(300, 'p');
    outbound(get(longPath));
    outbound(get(longPath));
    HijackPacket::resolve(("http://www.example.org" + longPath).c_str(), "http://block.example/", 30);
    outbound(get(longPath));
    inbound(reply());
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    outbound(hello());
    outbound(get().from("10.0.0.2", 50009));
    HijackPacket::resolve("http://www.example.org/", nullptr, 30);
    outbound(get().from("10.0.0.2", 50009));

    EXPECT_EQ(log.countContaining("--[0x"), 0);
    EXPECT_EQ(log.countContaining("Hijack-resolve"), 0);
    EXPECT_EQ(log.countContaining("] "), 0);
}

TEST_F(PolicyVerdicts, AFailedNameLookupLeavesTheAddress0AndTheVerdict) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://nowhere.example/", 30);

    EXPECT_EQ(outbound(hello()), verdictRedirect);
    EXPECT_EQ(result.redirectAddress, 0u);
    EXPECT_STREQ(result.redirectUrl, "http://nowhere.example/");
}

TEST_F(PolicyVerdicts, AnAllowedTlsConnectionPassesForTheRestOfIts120Seconds) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", nullptr, -1);

    advance(120000000);
    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443)), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    advance(1);
    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443).payload("\x17\x03\x03")), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PolicyVerdicts, APlainGetInsideAPacketThatIsAlsoNoHelloIsReadAsHttp) {
    EXPECT_EQ(outbound(get().to("93.184.216.34", 443)), verdictHold);
}

TEST_F(PolicyVerdicts, ADirectionOtherThan1And2StaysUndecidedWithoutARecord) {
    EXPECT_EQ(policy(get(), 0), verdictUndecided);
    EXPECT_EQ(policy(get(), 3), verdictUndecided);
    EXPECT_EQ(policy(get(), directionInbound), verdictPass);
    EXPECT_FALSE(hasRecord(get()));
}

TEST_F(PolicyVerdicts, ADirectionOtherThan1HoldsAPacketOfAnOpenRecord) {
    outbound(get());

    EXPECT_EQ(policy(get(), 3), verdictHold);
    EXPECT_EQ(policy(get(), directionInbound), verdictDrop);
}

TEST_F(PolicyVerdicts, AConnectivityProbeIsBypassedWithUrlSeenAlreadySet) {
    EXPECT_EQ(outbound(get("/success.txt", "detectportal.firefox.com")), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(outbound(hello("eu.captive.apple.com")), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_FALSE(hasRecord(hello("eu.captive.apple.com")));
}

TEST_F(PolicyVerdicts, ATlsConnectionToTheFilterServerPasses) {
    Configuration::setLogLevel(1);

    EXPECT_EQ(outbound(hello("localhost")), verdictPass);

    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_TRUE(log.holds(" policyEvaluate url passed through starts with localhost"));
    EXPECT_EQ(outbound(hello("localhost.example.org")), verdictPass);
    EXPECT_FALSE(hasRecord(hello()));
}

TEST_F(PolicyVerdicts, TheServersNameHasNoPlainHttpCounterpart) {
    EXPECT_EQ(outbound(get("/", "localhost")), verdictHold);
}

TEST_F(PolicyVerdicts, ATlsNameThatIsAPrefixOfTheServersNamePassesToo) {
    EXPECT_EQ(outbound(hello("local")), verdictPass);
}

TEST_F(PolicyVerdicts, AServerNamedLikeAWholeUrlOrAPrefixOfItPasses) {
    Configuration::removeAllServers(false);
    Configuration::addServerName("http://www", false);
    Configuration::resetCurrentServer();
    Configuration::setLogLevel(1);

    EXPECT_EQ(outbound(get()), verdictPass);

    EXPECT_TRUE(log.holds(" policyEvaluate url passed through starts with http://www"));
}

TEST_F(PolicyVerdicts, AServerWithAnEmptyNamePassesEveryUrl) {
    FilterServer* server = Configuration::getCurrentServer();
    static GPString* earlierName = server->getName(); // stays valid and is released by nobody
    ASSERT_STREQ(earlierName->cstr(), "localhost");
    server->setName(nullptr);

    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
}

TEST_F(PolicyVerdicts, ABareAddressOfMoreThan8BytesIsQueriedAsItStands) {
    Configuration::setLogLevel(1);
    const std::string oldHello("\x16\x03\x00\x00\x04", 5);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443).payload(oldHello)), verdictHold);
    EXPECT_TRUE(wasQueried("93.184.216.34"));
}

TEST_F(PolicyVerdicts, ABareAddressOf8BytesLeavesNothingBehindTheCutAndPasses) {
    const std::string oldHello("\x16\x03\x00\x00\x04", 5);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("10.0.0.9", 443).payload(oldHello)), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
}

TEST_F(PolicyVerdicts, ABareAddressShorterThanTheCutIsNotReadBehindItsEndAndPasses) {
    const std::string oldHello("\x16\x03\x00\x00\x04", 5);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("1.2.3.4", 443).payload(oldHello)), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
}

TEST_F(PolicyVerdicts, ThePayloadsClosingZeroIsTheOnlyChangeToAPacket) {
    // Both have a byte behind what they claim to be, which is where the zero goes.
    const int size = static_cast<int>(get().bytes().size());
    auto request = get().payload(getRequest() + "X").sizeReadAs(size).build();
    auto answer = reply(80, "HTTP/1.1 200 OK").build();
    std::string expected = request.bytes();
    ASSERT_EQ(expected.back(), 'X');
    expected.back() = '\0';
    const std::string unchanged = answer.bytes();

    EXPECT_EQ(outbound(request), verdictHold);
    EXPECT_EQ(inbound(answer), verdictDrop);

    EXPECT_EQ(request.bytes(), expected);
    EXPECT_EQ(answer.bytes(), unchanged) << "an inbound packet is not searched";
}

TEST_F(PolicyVerdicts, TwoConnectionsToOneUrlHaveTwoRecordsAndTwoQueries) {
    Configuration::setLogLevel(1);
    const auto other = get().from("10.0.0.2", 50001);

    EXPECT_EQ(outbound(get()), verdictHold);
    EXPECT_EQ(outbound(other), verdictHold);

    EXPECT_EQ(log.countContaining("url being checked: http://www.example.org/"), 2);
    HijackPacket::resolve("http://www.example.org/", nullptr);
    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(outbound(other), verdictHold);
}

TEST_F(PolicyVerdicts, WhenTheRecordEndsBeforeItsAnswerTheNextRequestStartsAnew) {
    Configuration::setLogLevel(1);
    outbound(get());
    advance(30000001);

    EXPECT_EQ(inbound(reply()), verdictPass);
    EXPECT_EQ(outbound(get()), verdictHold);
    EXPECT_EQ(log.countContaining("url being checked: http://www.example.org/"), 2);
}

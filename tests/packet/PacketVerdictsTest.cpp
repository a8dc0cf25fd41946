#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "config/FilterServer.h"
#include "filter/FilterQuery.h"
#include "gp/GPString.h"
#include "packet/HijackPacket.h"
#include "support/ClientHelloBuilder.h"
#include "support/VerdictWorld.h"

#include <arpa/inet.h>

#include <cstring>
#include <thread>

using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuilder;

namespace {

class PacketVerdicts : public testsupport::VerdictWorld {
protected:
    static bool hasRecord(const PacketBuilder& packet) {
        auto buffer = packet.build();
        return HijackPacket::find(buffer.packet()) != nullptr;
    }

    // Makes these addresses the snapshot of the one server's name.
    void givenServerAddress(const std::string& address) {
        names.answer("localhost", AF_INET, {address});
        FilterIPAddresses::startIPAddressManager();
        FilterIPAddresses* snapshot = nullptr;
        while (!(snapshot = FilterIPAddresses::getCurrentIPAddresses()))
            std::this_thread::yield();
        snapshot->release();
    }

    static int quick(const PacketBuilder& packet, int direction) {
        auto buffer = packet.build();
        return quickEvaluate(buffer.packet(), nullptr, nullptr, direction);
    }

    int policy(const PacketBuilder& packet, int direction) {
        auto buffer = packet.build();
        result = {};
        return policyEvaluate(buffer.packet(), &result, nullptr, direction);
    }
};

in6_addr address6(const char* printed) {
    in6_addr address{};
    inet_pton(AF_INET6, printed, &address);
    return address;
}

} // namespace

TEST_F(PacketVerdicts, WithFilteringDisabledBothCallbacksPassEverythingAndMakeNoRecord) {
    Configuration::setFilteringDisabled(true);

    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(outbound(hello()), verdictPass);
    EXPECT_EQ(inbound(reply()), verdictPass);

    Configuration::setFilteringDisabled(false);
    EXPECT_FALSE(hasRecord(get()));
    EXPECT_FALSE(hasRecord(hello()));
}

TEST_F(PacketVerdicts, InboundWithoutACurrentServerPassesBeforeAnyLookAtThePacket) {
    outbound(get());
    Configuration::removeAllServers(false);
    Configuration::resetCurrentServer();

    EXPECT_EQ(tcpInBoundCallback(nullptr, &result), verdictPass);
    EXPECT_EQ(inbound(reply()), verdictPass);
}

TEST_F(PacketVerdicts, InboundWithAServerOfUnknownTypePasses) {
    outbound(get());
    ASSERT_EQ(inbound(reply()), verdictDrop);
    Configuration::getCurrentServer()->setServerType(ServerTypeUnknown);

    EXPECT_EQ(inbound(reply()), verdictPass);
}

TEST_F(PacketVerdicts, OutboundAsksForNoServerType) {
    Configuration::getCurrentServer()->setServerType(ServerTypeUnknown);

    EXPECT_EQ(outbound(get()), verdictHold);
}

TEST_F(PacketVerdicts, OutboundWithoutACurrentServerRunsTheEvaluatorsAndPasses) {
    Configuration::setLogLevel(1);
    Configuration::removeAllServers(false);
    Configuration::resetCurrentServer();

    EXPECT_EQ(outbound(get()), verdictPass);

    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_TRUE(log.holds(" policyEvaluate url passed through because server or server name doesnt exist"));
    EXPECT_FALSE(hasRecord(get()));
}

TEST_F(PacketVerdicts, UnusablePacketsPass) {
    EXPECT_EQ(outbound(PacketBuilder::ipv4().udp().payload(getRequest())), verdictPass);
    EXPECT_EQ(outbound(get().sizeReadAs(39)), verdictPass);
    EXPECT_EQ(tcpOutBoundCallback(nullptr, &result), verdictPass);
    EXPECT_EQ(inbound(PacketBuilder::ipv4().udp().reversed()), verdictPass);
    EXPECT_EQ(tcpInBoundCallback(nullptr, &result), verdictPass);
}

TEST_F(PacketVerdicts, ANullResultRecordHasThePacketId0) {
    outbound(get());
    Configuration::setLogLevel(64);
    auto packet = reply().build();

    EXPECT_EQ(tcpInBoundCallback(packet.packet(), nullptr), verdictDrop);

    EXPECT_TRUE(log.holds("--[0x0] hijack packet exists but not resolved: 0"));
}

TEST_F(PacketVerdicts, LoopbackTrafficPassesByItsRemoteEnd) {
    const auto toLoopback = PacketBuilder::ipv4().to("127.0.0.1", 80).payload(getRequest());
    const auto fromLoopback = PacketBuilder::ipv4().from("127.0.0.1", 80).to("10.0.0.2", 50000);

    EXPECT_EQ(quick(toLoopback, directionOutbound), verdictPass);
    EXPECT_EQ(quick(toLoopback, directionInbound), verdictUndecided);
    EXPECT_EQ(quick(fromLoopback, directionInbound), verdictPass);
    EXPECT_EQ(quick(fromLoopback, directionOutbound), verdictUndecided);
    EXPECT_EQ(outbound(toLoopback), verdictPass);
    EXPECT_FALSE(hasRecord(toLoopback));
}

TEST_F(PacketVerdicts, OnlyTheAddress127001IsLoopback) {
    EXPECT_EQ(quick(PacketBuilder::ipv4().to("127.0.0.2", 80), directionOutbound), verdictUndecided);
}

TEST_F(PacketVerdicts, IPv6LoopbackTrafficPassesByItsRemoteEnd) {
    EXPECT_EQ(quick(PacketBuilder::ipv6().to("::1", 80), directionOutbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv6().to("::1", 80), directionInbound), verdictUndecided);
    EXPECT_EQ(quick(PacketBuilder::ipv6().from("::1", 80), directionInbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv6().to("::2", 80), directionOutbound), verdictUndecided);
}

TEST_F(PacketVerdicts, TrafficOfAFilterServerPasses) {
    givenServerAddress("203.0.113.9");
    const auto toServer = PacketBuilder::ipv4().to("203.0.113.9", 80).payload(getRequest());

    EXPECT_EQ(quick(toServer, directionOutbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder(toServer).reversed(), directionInbound), verdictPass);
    EXPECT_EQ(quick(get(), directionOutbound), verdictUndecided);
}

TEST_F(PacketVerdicts, ThereIsNoServerAddressTestOnTheIPv6Side) {
    givenServerAddress("203.0.113.9");

    EXPECT_EQ(quick(PacketBuilder::ipv6().to("::ffff:203.0.113.9", 80), directionOutbound), verdictUndecided);
}

TEST_F(PacketVerdicts, ARemoteIPv4AddressOf0SkipsTheLoopbackAndServerTests) {
    // An unresolved server has the address 0 in the snapshot.
    FilterIPAddresses::startIPAddressManager();
    FilterIPAddresses* snapshot = nullptr;
    while (!(snapshot = FilterIPAddresses::getCurrentIPAddresses()))
        std::this_thread::yield();
    ASSERT_EQ(snapshot->addresses[0], 0u);
    snapshot->release();

    EXPECT_EQ(quick(PacketBuilder::ipv4().to("0.0.0.0", 80), directionOutbound), verdictUndecided);
}

TEST_F(PacketVerdicts, WithFilteringSuspendedOutboundPacketsPassAndAreLoggedAtLevel64) {
    FilterQuery::setFilteringDisabled(true);
    Configuration::setLogLevel(64);

    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(outbound(PacketBuilder::ipv6().payload(getRequest())), verdictPass);

    EXPECT_TRUE(log.holds("--[0x55667788] tcp outbound. Filter disabled=1"));
    EXPECT_TRUE(log.holds("--[0x55667788] tcp ipv6 outbound. Filter disabled=1"));
    EXPECT_FALSE(hasRecord(get()));
}

TEST_F(PacketVerdicts, WithFilteringSuspendedAPendingRedirectStillActsOnInboundPackets) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    FilterQuery::setFilteringDisabled(true);

    EXPECT_EQ(outbound(hello()), verdictPass);
    EXPECT_EQ(inbound(reply(443)), verdictRedirect);
}

TEST_F(PacketVerdicts, ABlockedAddressIsDroppedInBothDirectionsBeforeAnyPolicy) {
    FilterQuery::addToSSL(0x5db8d822);
    Configuration::setLogLevel(16);

    EXPECT_EQ(outbound(hello()), verdictDrop);
    EXPECT_EQ(inbound(reply(443)), verdictDrop);

    EXPECT_FALSE(hasRecord(hello()));
    EXPECT_EQ(log.countContaining("--[0x55667788] tcp ssl packet dropped (ip 0x5db8d822 port 443):"), 2);
}

TEST_F(PacketVerdicts, ABlockedIPv6AddressIsDroppedInBothDirections) {
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));
    Configuration::setLogLevel(16);

    EXPECT_EQ(outbound(PacketBuilder::ipv6()), verdictDrop);
    EXPECT_EQ(inbound(PacketBuilder::ipv6().reversed()), verdictDrop);

    EXPECT_EQ(log.countContaining("--[0x55667788] tcp ipv6 ssl packet dropped "
                                  "(ip [2001:0db8:0000:0000:0000:0000:0000:0022] port 80):"),
              2);
}

TEST_F(PacketVerdicts, TheHandshakePassesWithoutAUrl) {
    EXPECT_EQ(outbound(PacketBuilder::ipv4()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
    EXPECT_EQ(inbound(PacketBuilder::ipv4().reversed()), verdictPass);
}

TEST_F(PacketVerdicts, APacketWithAUrlIsHeldAndItsQueryGoesOut) {
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

TEST_F(PacketVerdicts, AnIPv6UrlIsLoggedUnderATextOfItsOwn) {
    Configuration::setLogLevel(1);

    EXPECT_EQ(outbound(PacketBuilder::ipv6().payload(getRequest())), verdictHold);

    EXPECT_TRUE(log.holds("Ipv6 checking url http://www.example.org/"));
}

TEST_F(PacketVerdicts, InboundPacketsAreNeverSearchedForAUrl) {
    EXPECT_EQ(inbound(reply(80, getRequest())), verdictPass);

    EXPECT_EQ(result.urlSeen, 0);
    EXPECT_FALSE(hasRecord(get()));
}

TEST_F(PacketVerdicts, WhileTheQueryRunsAnswersAreDroppedAndTheClientsPacketsHeld) {
    outbound(get());
    Configuration::setLogLevel(64);

    EXPECT_EQ(inbound(reply()), verdictDrop);
    EXPECT_TRUE(log.holds("--[0x55667788] hijack packet exists but not resolved: 0"));
    EXPECT_EQ(outbound(get()), verdictHold);
    EXPECT_TRUE(log.holds("--[0x55667788] hijack packet exists but not resolved: 7"));
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PacketVerdicts, WhileAPlainQueryRunsPacketsWithoutPayloadPass) {
    outbound(get());

    EXPECT_EQ(inbound(PacketBuilder::ipv4().reversed()), verdictPass);
    EXPECT_EQ(outbound(PacketBuilder::ipv4()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PacketVerdicts, WhileATlsQueryRunsPacketsWithoutPayloadAreHeldAndDroppedToo) {
    outbound(hello());

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443)), verdictHold);
    EXPECT_EQ(inbound(PacketBuilder::ipv4().to("93.184.216.34", 443).reversed()), verdictDrop);
}

TEST_F(PacketVerdicts, AnAllowedPlainConnectionPassesWithUrlSeenUntilItsFirst30SecondsAreOver) {
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

TEST_F(PacketVerdicts, ABlockedPlainConnectionIsRedirectedInBothDirections) {
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

TEST_F(PacketVerdicts, ADeliveredRedirectMeetsLaterPacketsUntilItsTimeIsUp) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://10.9.8.7/", 30);

    advance(30000000);
    EXPECT_EQ(inbound(reply(443)), verdictRedirect);
    EXPECT_EQ(inbound(reply(443)), verdictRedirect);
    advance(1);
    EXPECT_EQ(inbound(reply(443)), verdictPass);
}

TEST_F(PacketVerdicts, AnInboundPacketWithoutRoomForThePlainRedirectPasses) {
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);
    Configuration::setLogLevel(64);

    EXPECT_EQ(inbound(reply(80, "short")), verdictPass);

    EXPECT_TRUE(log.holds("--[0x55667788] Inbound TCP packet is too small to redirect.\n"));
    EXPECT_STREQ(result.redirectUrl, "");
}

TEST_F(PacketVerdicts, ARedirectTextAsLongAsThePayloadDoesNotFit) {
    const std::string block = "http://block.example/";
    const std::size_t text =
        ("HTTP/1.1 302 Found\r\nLocation: " + block + "\r\nConnection: close\r\n\r\n").size();
    outbound(get());
    HijackPacket::resolve("http://www.example.org/", block.c_str(), 30);

    EXPECT_EQ(inbound(reply(80, std::string(text, 'x'))), verdictPass);
    EXPECT_EQ(inbound(reply(80, std::string(text + 1, 'x'))), verdictRedirect);
}

TEST_F(PacketVerdicts, AShortGetWithoutRoomForTheRedirectStartsOneMoreRecordAndQuery) {
    outbound(get("/"));
    HijackPacket::resolve("http://www.example.org/", "http://block.example/page?with=a-long-query-string",
                          30);
    Configuration::setLogLevel(1 | 64);

    EXPECT_EQ(outbound(get("/")), verdictHold);

    EXPECT_TRUE(log.holds("--[0x55667788] Inbound TCP packet is too small to redirect.\n"));
    EXPECT_TRUE(wasQueried("http://www.example.org/"));
    EXPECT_TRUE(HijackPacket::resolve("http://www.example.org/", nullptr));
}

TEST_F(PacketVerdicts, AnOutboundPacketThatDoesNotFitAndHoldsNoUrlPasses) {
    outbound(get("/"));
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().payload("body")), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PacketVerdicts, ATlsRedirectActsOnAnyPacketOfTheConnectionWhateverItsSize) {
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

TEST_F(PacketVerdicts, TheHttpsRedirectLineShowsTheIPv6PositionsWhateverTheVersion) {
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

TEST_F(PacketVerdicts, AnIPv6RedirectLooksUpTheIPv6Address) {
    names.answer("block.example", AF_INET6, {"2001:db8::beef"});
    names.answer("block.example", AF_INET, {"198.51.100.7"});
    const auto hello6 = PacketBuilder::ipv6().to("2001:db8::22", 443).payload(ClientHelloBuilder().build());
    ASSERT_EQ(outbound(hello6), verdictHold);
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);

    EXPECT_EQ(outbound(hello6), verdictRedirect);

    const in6_addr expected = address6("2001:db8::beef");
    EXPECT_EQ(std::memcmp(&result.redirectAddressIpv6, &expected, sizeof expected), 0);
    EXPECT_EQ(result.redirectAddress, 0u);
}

TEST_F(PacketVerdicts, ARedirectWithoutAResultRecordIsStillTheVerdict) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    auto packet = reply(443).build();

    EXPECT_EQ(tcpInBoundCallback(packet.packet(), nullptr), verdictRedirect);
    for (const std::string& name : names.asked())
        EXPECT_NE(name, "block.example");
}

TEST_F(PacketVerdicts, AFailedNameLookupLeavesTheAddress0AndTheVerdict) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", "http://nowhere.example/", 30);

    EXPECT_EQ(outbound(hello()), verdictRedirect);
    EXPECT_EQ(result.redirectAddress, 0u);
    EXPECT_STREQ(result.redirectUrl, "http://nowhere.example/");
}

TEST_F(PacketVerdicts, AnAllowedTlsConnectionPassesForTheRestOfIts120Seconds) {
    outbound(hello());
    HijackPacket::resolve("https://www.example.org", nullptr, -1);

    advance(120000000);
    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443)), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    advance(1);
    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443).payload("\x17\x03\x03")), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(PacketVerdicts, APlainGetInsideAPacketThatIsAlsoNoHelloIsReadAsHttp) {
    EXPECT_EQ(outbound(get().to("93.184.216.34", 443)), verdictHold);
}

TEST_F(PacketVerdicts, ADirectionOtherThan1And2StaysUndecidedWithoutARecord) {
    EXPECT_EQ(policy(get(), 0), verdictUndecided);
    EXPECT_EQ(policy(get(), 3), verdictUndecided);
    EXPECT_EQ(policy(get(), directionInbound), verdictPass);
    EXPECT_FALSE(hasRecord(get()));
}

TEST_F(PacketVerdicts, ADirectionOtherThan1HoldsAPacketOfAnOpenRecord) {
    outbound(get());

    EXPECT_EQ(policy(get(), 3), verdictHold);
    EXPECT_EQ(policy(get(), directionInbound), verdictDrop);
}

TEST_F(PacketVerdicts, AConnectivityProbeIsBypassedWithUrlSeenAlreadySet) {
    EXPECT_EQ(outbound(get("/success.txt", "detectportal.firefox.com")), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(outbound(hello("eu.captive.apple.com")), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_FALSE(hasRecord(hello("eu.captive.apple.com")));
}

TEST_F(PacketVerdicts, ATlsConnectionToTheFilterServerPasses) {
    Configuration::setLogLevel(1);

    EXPECT_EQ(outbound(hello("localhost")), verdictPass);

    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_TRUE(log.holds(" policyEvaluate url passed through starts with localhost"));
    EXPECT_EQ(outbound(hello("localhost.example.org")), verdictPass);
    EXPECT_FALSE(hasRecord(hello()));
}

TEST_F(PacketVerdicts, TheServersNameHasNoPlainHttpCounterpart) {
    EXPECT_EQ(outbound(get("/", "localhost")), verdictHold);
}

TEST_F(PacketVerdicts, ATlsNameThatIsAPrefixOfTheServersNamePassesToo) {
    EXPECT_EQ(outbound(hello("local")), verdictPass);
}

TEST_F(PacketVerdicts, AServerNamedLikeAWholeUrlOrAPrefixOfItPasses) {
    Configuration::removeAllServers(false);
    Configuration::addServerName("http://www", false);
    Configuration::resetCurrentServer();
    Configuration::setLogLevel(1);

    EXPECT_EQ(outbound(get()), verdictPass);

    EXPECT_TRUE(log.holds(" policyEvaluate url passed through starts with http://www"));
}

TEST_F(PacketVerdicts, AServerWithAnEmptyNamePassesEveryUrl) {
    FilterServer* server = Configuration::getCurrentServer();
    static GPString* earlierName = server->getName(); // stays valid and is released by nobody
    ASSERT_STREQ(earlierName->cstr(), "localhost");
    server->setName(nullptr);

    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
}

TEST_F(PacketVerdicts, ABareAddressOfMoreThan8BytesIsQueriedAsItStands) {
    Configuration::setLogLevel(1);
    const std::string oldHello("\x16\x03\x00\x00\x04", 5);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("93.184.216.34", 443).payload(oldHello)), verdictHold);
    EXPECT_TRUE(wasQueried("93.184.216.34"));
}

TEST_F(PacketVerdicts, ABareAddressOf8BytesLeavesNothingBehindTheCutAndPasses) {
    const std::string oldHello("\x16\x03\x00\x00\x04", 5);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("10.0.0.9", 443).payload(oldHello)), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
}

TEST_F(PacketVerdicts, ABareAddressShorterThanTheCutIsNotReadBehindItsEndAndPasses) {
    const std::string oldHello("\x16\x03\x00\x00\x04", 5);

    EXPECT_EQ(outbound(PacketBuilder::ipv4().to("1.2.3.4", 443).payload(oldHello)), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
}

TEST_F(PacketVerdicts, ThePayloadsClosingZeroIsTheOnlyChangeToAPacket) {
    auto packet = get().build();
    const std::string before = packet.bytes();

    outbound(packet);

    EXPECT_EQ(packet.bytes(), before);
}

TEST_F(PacketVerdicts, TwoConnectionsToOneUrlHaveTwoRecordsAndTwoQueries) {
    Configuration::setLogLevel(1);
    const auto other = get().from("10.0.0.2", 50001);

    EXPECT_EQ(outbound(get()), verdictHold);
    EXPECT_EQ(outbound(other), verdictHold);

    EXPECT_EQ(log.countContaining("url being checked: http://www.example.org/"), 2);
    HijackPacket::resolve("http://www.example.org/", nullptr);
    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(outbound(other), verdictHold);
}

TEST_F(PacketVerdicts, WhenTheRecordEndsBeforeItsAnswerTheNextRequestStartsAnew) {
    Configuration::setLogLevel(1);
    outbound(get());
    advance(30000001);

    EXPECT_EQ(inbound(reply()), verdictPass);
    EXPECT_EQ(outbound(get()), verdictHold);
    EXPECT_EQ(log.countContaining("url being checked: http://www.example.org/"), 2);
}

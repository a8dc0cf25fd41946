#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "config/FilterServer.h"
#include "gp/GPString.h"
#include "packet/HijackPacket.h"
#include "support/VerdictWorld.h"

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

TEST_F(PolicyVerdicts, APacketWithoutAUrlTakesTheMarkOfOneAway) {
    auto packet = PacketBuilder::ipv4().build();
    result.urlSeen = 1;

    EXPECT_EQ(policyEvaluate(packet.packet(), &result, nullptr, directionOutbound), verdictPass);

    EXPECT_EQ(result.urlSeen, 0);
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

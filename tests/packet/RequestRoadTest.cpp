#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "packet/SysctlResult.h"
#include "support/AgentLinkWorld.h"
#include "support/ClientHelloBuilder.h"
#include "support/ManualClock.h"
#include "support/PacketBuilder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using testsupport::AgentStandIn;
using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuilder;

namespace {

// Whole connections against a real agent on the loopback interface: the callbacks, the records, the query
// pool and the link, with nothing played between them.
class RequestRoad : public testing::Test {
protected:
    RequestRoad() {
        Configuration::addServerName("localhost", false);
        Configuration::setLogLevel(64);
        world.startAgent();
    }

    int outbound(const PacketBuilder& builder) { return judge(builder, tcpOutBoundCallback); }
    int inbound(const PacketBuilder& builder) { return judge(builder, tcpInBoundCallback); }

    int judge(const PacketBuilder& builder, int (*callback)(char*, void*)) {
        auto packet = builder.build();
        result = {};
        return callback(packet.packet(), &result);
    }

    // Waits for the question about the URL and answers it; returns when the record is resolved.
    void answer(const std::string& url, const std::string& reply) {
        const AgentStandIn::Frame question = world.agent().awaitFrame(1);
        EXPECT_EQ(question.body, "{\"url\":\"" + url + "\"}");
        world.agent().reply(question.sequence, reply);
        world.awaitLog("Hijack-resolve:true: target='" + url + "'");
    }

    static std::int64_t now() { return testsupport::ManualClock::installed().microseconds(); }
    static void advance(std::int64_t microseconds) {
        testsupport::ManualClock::installed().advance(microseconds);
    }

    static PacketBuilder http() { return PacketBuilder::ipv4(); }
    static PacketBuilder tls() { return PacketBuilder::ipv4().to("93.184.216.34", 443); }
    static PacketBuilder request() { return http().payload(getRequest("/" + std::string(200, 'p'))); }
    static PacketBuilder hello() { return tls().payload(ClientHelloBuilder().build()); }
    static PacketBuilder answerPacket() {
        return http().reversed().payload("HTTP/1.1 200 " + std::string(900, 'x'));
    }

    const std::string httpUrl = "http://www.example.org/" + std::string(200, 'p');
    const std::string httpsUrl = "https://www.example.org";
    testsupport::AgentLinkWorld world;
    sysctl_result result{};
};

} // namespace

TEST_F(RequestRoad, AnAllowedPlainRequestGoesOnUntilItsFirst30SecondsAreOver) {
    const std::int64_t asked = now();
    EXPECT_EQ(outbound(http()), verdictPass);
    EXPECT_EQ(inbound(http().reversed()), verdictPass);

    EXPECT_EQ(outbound(request()), verdictHold);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(inbound(answerPacket()), verdictDrop);
    EXPECT_EQ(outbound(request()), verdictHold);
    EXPECT_EQ(outbound(http()), verdictPass);

    answer(httpUrl, "{}");
    EXPECT_EQ(outbound(request()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(inbound(answerPacket()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(inbound(http().reversed()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);

    advance(asked + 30000000 - now());
    EXPECT_EQ(inbound(answerPacket()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    advance(1);
    EXPECT_EQ(inbound(answerPacket()), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
    EXPECT_EQ(outbound(request()), verdictHold);
}

TEST_F(RequestRoad, ABlockedPlainRequestMeetsItsRedirectFor30SecondsFromTheAnswer) {
    world.names.answer("block.example", AF_INET, {"198.51.100.7"});
    EXPECT_EQ(outbound(request()), verdictHold);
    answer(httpUrl, R"({"redirect":"http://block.example/why"})");

    EXPECT_EQ(outbound(request()), verdictRedirect);
    EXPECT_STREQ(result.redirectUrl, "http://block.example/why");
    EXPECT_EQ(result.redirectIsHttps, 0);
    EXPECT_EQ(inbound(answerPacket()), verdictRedirect);
    advance(29000000);
    EXPECT_EQ(outbound(request()), verdictRedirect);
    advance(60000000);
    EXPECT_EQ(outbound(request()), verdictHold);
}

TEST_F(RequestRoad, AnAllowedClientHelloLetsTheConnectionPass) {
    EXPECT_EQ(outbound(tls()), verdictPass);
    EXPECT_EQ(outbound(hello()), verdictHold);
    EXPECT_EQ(inbound(tls().reversed()), verdictDrop);
    EXPECT_EQ(outbound(tls()), verdictHold);

    answer(httpsUrl, "{}");
    EXPECT_EQ(outbound(hello()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
    EXPECT_EQ(inbound(tls().reversed()), verdictPass);
    EXPECT_EQ(result.urlSeen, 1);
}

TEST_F(RequestRoad, ABlockedClientHelloRedirectsEveryPacketOfTheConnection) {
    world.names.answer("block.example", AF_INET, {"198.51.100.7"});
    EXPECT_EQ(outbound(hello()), verdictHold);
    answer(httpsUrl, R"({"redirect":"https://block.example/why"})");

    EXPECT_EQ(outbound(hello()), verdictRedirect);
    EXPECT_EQ(result.redirectIsHttps, 1);
    EXPECT_EQ(inbound(tls().reversed()), verdictRedirect);
    EXPECT_EQ(outbound(tls().payload("\x17\x03\x03")), verdictRedirect);

    // Behind the record's end the encrypted data gives no URL.
    advance(120000000);
    EXPECT_EQ(outbound(tls().payload("\x17\x03\x03")), verdictPass);
    EXPECT_EQ(result.urlSeen, 0);
}

TEST_F(RequestRoad, AClientHelloInTwoSegmentsIsAskedForOnceAndItsSecondHalfHeld) {
    const auto [first, second] = ClientHelloBuilder().extensionAfter(21, std::string(1600, '\0')).split(1400);

    EXPECT_EQ(outbound(tls().payload(first)), verdictHold);
    EXPECT_EQ(outbound(tls().payload(second)), verdictHold);
    answer(httpsUrl, "{}");

    EXPECT_EQ(outbound(tls().payload(second)), verdictPass);
}

TEST_F(RequestRoad, AnIPv6RequestIsAskedForAndRedirectedByItsUnswappedSize) {
    world.names.answer("block.example", AF_INET6, {"2001:db8::beef"});
    const auto request6 = PacketBuilder::ipv6().payload(getRequest());
    EXPECT_EQ(outbound(request6), verdictHold);
    answer("http://www.example.org/", R"({"redirect":"http://block.example/why"})");

    // A bare acknowledgement counts as a packet with room for the redirect.
    EXPECT_EQ(outbound(PacketBuilder::ipv6().tcpOptions(3)), verdictRedirect);
    EXPECT_STREQ(result.redirectUrl, "http://block.example/why");
}

TEST_F(RequestRoad, ALateAnswerFindsNoRecordAndChangesNothing) {
    EXPECT_EQ(outbound(request()), verdictHold);
    const AgentStandIn::Frame question = world.agent().awaitFrame(1);
    advance(30000001);
    EXPECT_EQ(inbound(answerPacket()), verdictPass);

    world.agent().reply(question.sequence, R"({"redirect":"http://block.example/"})");
    world.awaitLog("Hijack-resolve:false: target='" + httpUrl + "' redirect='http://block.example/'");

    EXPECT_EQ(inbound(answerPacket()), verdictPass);
}

TEST_F(RequestRoad, ASilentAgentHoldsNoListenerBack) {
    for (int port = 50000; port < 50100; ++port)
        EXPECT_EQ(outbound(request().from("10.0.0.2", port)), verdictHold);
    for (int port = 50000; port < 50100; ++port)
        EXPECT_EQ(inbound(answerPacket().to("10.0.0.2", port)), verdictDrop);

    EXPECT_EQ(outbound(request().from("10.0.0.2", 49999)), verdictHold);
}

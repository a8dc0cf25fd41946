#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "config/FilterServer.h"
#include "filter/FilterQuery.h"
#include "packet/HijackPacket.h"
#include "support/Eventually.h"
#include "support/LockCounter.h"
#include "support/Sanitizers.h"
#include "support/VerdictWorld.h"

#include <arpa/inet.h>

#include <thread>

using testsupport::getRequest;
using testsupport::PacketBuilder;

namespace {

// The callbacks, and the cheap tests in front of the policy.
class PacketVerdicts : public testsupport::VerdictWorld {
protected:
    // Builds the snapshot of the servers' addresses, as the name service knows them now.
    static void buildSnapshot() {
        FilterIPAddresses::startIPAddressManager();
        FilterIPAddresses* snapshot = nullptr;
        while (!(snapshot = FilterIPAddresses::getCurrentIPAddresses()))
            std::this_thread::yield();
        snapshot->release();
    }

    void givenServerAddress(const std::string& address) {
        names.answer("localhost", AF_INET, {address});
        buildSnapshot();
    }

    static int quick(const PacketBuilder& packet, int direction) {
        auto buffer = packet.build();
        return quickEvaluate(buffer.packet(), nullptr, nullptr, direction);
    }
};

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

TEST_F(PacketVerdicts, WithFilteringDisabledPacketsOfAnOpenRecordPassTooInBothDirections) {
    outbound(get());
    ASSERT_EQ(outbound(get()), verdictHold);
    ASSERT_EQ(inbound(reply()), verdictDrop);
    Configuration::setFilteringDisabled(true);

    EXPECT_EQ(outbound(get()), verdictPass);
    EXPECT_EQ(inbound(reply()), verdictPass);
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

TEST_F(PacketVerdicts, OutboundWithoutACurrentServerPassesSilentlyUnlessVerbose) {
    Configuration::removeAllServers(false);
    Configuration::resetCurrentServer();
    const auto before = log.messages().size();

    EXPECT_EQ(outbound(get()), verdictPass);

    EXPECT_EQ(log.messages().size(), before);
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
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock function";
    givenServerAddress("203.0.113.9");
    auto toNobody = PacketBuilder::ipv4().to("0.0.0.0", 80).build();
    auto toSomebody = PacketBuilder::ipv4().to("198.51.100.1", 80).build();
    const auto locksFor = [](testsupport::PacketBuffer& packet) {
        const testsupport::LockCounter locks;
        EXPECT_EQ(quickEvaluate(packet.packet(), nullptr, nullptr, directionOutbound), verdictUndecided);
        return locks.count();
    };

    const long nobody = locksFor(toNobody);
    const long somebody = locksFor(toSomebody);

    EXPECT_EQ(somebody - nobody, 2) << "a reference to the snapshot is taken under its lock, and given back";
    EXPECT_EQ(locksFor(toNobody), nobody);
    EXPECT_EQ(locksFor(toSomebody), somebody);
}

TEST_F(PacketVerdicts, TheSnapshotOfTheServersIsGivenBack) {
    givenServerAddress("203.0.113.9");
    FilterIPAddresses* snapshot = FilterIPAddresses::getCurrentIPAddresses();
    // Under its lock, as its monitor takes one in passing.
    const auto references = [snapshot] { return snapshot->retain(), snapshot->release(); };
    const int before = references();

    quick(get(), directionOutbound);
    quick(PacketBuilder::ipv4().to("203.0.113.9", 80), directionOutbound);

    EXPECT_TRUE(testsupport::eventually([&] { return references() <= before; }));
    snapshot->release();
}

TEST_F(PacketVerdicts, WithoutASnapshotThereIsNoServerAddress) {
    ASSERT_EQ(FilterIPAddresses::getCurrentIPAddresses(), nullptr);

    EXPECT_EQ(quick(get(), directionOutbound), verdictUndecided);
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

TEST_F(PacketVerdicts, ASuspensionIsAskedForOutboundPacketsAlone) {
    FilterQuery::setFilteringDisabled(true);
    Configuration::setLogLevel(64);
    const std::size_t before = log.messages().size();

    EXPECT_EQ(quick(get(), directionOutbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv6(), directionOutbound), verdictPass);
    EXPECT_EQ(log.messages().size(), before + 2);
    const int others[] = {0, directionInbound, 3};
    for (const int direction : others) {
        EXPECT_EQ(quick(get(), direction), verdictUndecided);
        EXPECT_EQ(quick(PacketBuilder::ipv6(), direction), verdictUndecided);
    }
    EXPECT_EQ(log.messages().size(), before + 2);
}

TEST_F(PacketVerdicts, ASuspensionIsLoggedAtLevel64Alone) {
    FilterQuery::setFilteringDisabled(true);
    Configuration::setLogLevel(~64);
    const std::size_t before = log.messages().size();

    quick(get(), directionOutbound);
    quick(PacketBuilder::ipv6(), directionOutbound);

    EXPECT_EQ(log.messages().size(), before);
}

TEST_F(PacketVerdicts, ADirectionOtherThan1HasItsRemoteEndInTheDestination) {
    EXPECT_EQ(quick(PacketBuilder::ipv4().to("127.0.0.1", 80), 3), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv4().from("127.0.0.1", 80), 3), verdictUndecided);
    EXPECT_EQ(quick(PacketBuilder::ipv6().to("::1", 80), 0), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv6().from("::1", 80), 0), verdictUndecided);
}

TEST_F(PacketVerdicts, LoopbackAndServersComeBeforeTheSuspensionAndThatBeforeTheBlockedAddresses) {
    givenServerAddress("203.0.113.9");
    in6_addr loopback6, server6;
    inet_pton(AF_INET6, "::1", &loopback6);
    inet_pton(AF_INET6, "2001:db8::22", &server6);
    for (const unsigned address : {0x7f000001u, 0xcb007109u, 0x5db8d822u})
        FilterQuery::addToSSL(address);
    FilterQuery::addToSSLIpv6(loopback6);
    FilterQuery::addToSSLIpv6(server6);
    FilterQuery::setFilteringDisabled(true);
    Configuration::setLogLevel(16 | 64);
    const std::size_t before = log.messages().size();

    EXPECT_EQ(quick(PacketBuilder::ipv4().to("127.0.0.1", 80), directionOutbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv4().to("203.0.113.9", 80), directionOutbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv6().to("::1", 80), directionOutbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv4().from("127.0.0.1", 80), directionInbound), verdictPass);
    EXPECT_EQ(log.messages().size(), before) << "neither suspended nor blocked";

    EXPECT_EQ(quick(get(), directionOutbound), verdictPass);
    EXPECT_EQ(quick(PacketBuilder::ipv6(), directionOutbound), verdictPass);
    const auto lines = log.messages();
    ASSERT_EQ(lines.size(), before + 2);
    EXPECT_EQ(lines[before], "--[0x0] tcp outbound. Filter disabled=1");
    EXPECT_EQ(lines[before + 1], "--[0x0] tcp ipv6 outbound. Filter disabled=1");
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

TEST_F(PacketVerdicts, ADropIsLoggedAtLevel16Alone) {
    in6_addr server;
    inet_pton(AF_INET6, "2001:db8::22", &server);
    FilterQuery::addToSSL(0x5db8d822);
    FilterQuery::addToSSLIpv6(server);
    Configuration::setLogLevel(~16);

    EXPECT_EQ(outbound(hello()), verdictDrop);
    EXPECT_EQ(outbound(PacketBuilder::ipv6()), verdictDrop);

    EXPECT_EQ(log.countContaining("dropped"), 0);
}

TEST_F(PacketVerdicts, ABlockedIPv6AddressIsDroppedInBothDirections) {
    in6_addr server;
    inet_pton(AF_INET6, "2001:db8::22", &server);
    FilterQuery::addToSSLIpv6(server);
    Configuration::setLogLevel(16);

    EXPECT_EQ(outbound(PacketBuilder::ipv6()), verdictDrop);
    EXPECT_EQ(inbound(PacketBuilder::ipv6().reversed()), verdictDrop);

    EXPECT_EQ(log.countContaining("--[0x55667788] tcp ipv6 ssl packet dropped "
                                  "(ip [2001:0db8:0000:0000:0000:0000:0000:0022] port 80):"),
              2);
}

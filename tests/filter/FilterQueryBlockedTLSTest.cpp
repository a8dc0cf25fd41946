#include "filter/FilterQuery.h"

#include "config/Configuration.h"
#include "filter/SSLEntry.h"
#include "gp/GPTimer.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"
#include "support/PacketBuilder.h"
#include "support/ScratchRoot.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using testsupport::ManualClock;
using testsupport::PacketBuilder;

namespace {

constexpr unsigned server = 0x5db8d822; // 93.184.216.34

in6_addr address6(const char* printed) {
    in6_addr address{};
    inet_pton(AF_INET6, printed, &address);
    return address;
}

class BlockedTLSTest : public testing::Test {
protected:
    // Whether a packet to that server is blocked, or one from it.
    static bool blocksTo(const char* remote = "93.184.216.34") {
        auto packet = PacketBuilder::ipv4().to(remote, 443).build();
        return FilterQuery::isBlockedSSL(packet.packet());
    }

    static bool blocksFrom(const char* remote = "93.184.216.34") {
        auto packet = PacketBuilder::ipv4().to(remote, 443).reversed().build();
        return FilterQuery::isBlockedSSL(packet.packet());
    }

    static bool blocksTo6(const char* remote = "2001:db8::22") {
        auto packet = PacketBuilder::ipv6().to(remote, 443).build();
        return FilterQuery::isBlockedSSLIpv6(packet.packet());
    }

    static bool blocksFrom6(const char* remote = "2001:db8::22") {
        auto packet = PacketBuilder::ipv6().to(remote, 443).reversed().build();
        return FilterQuery::isBlockedSSLIpv6(packet.packet());
    }

    static void advance(std::int64_t microseconds) { ManualClock::installed().advance(microseconds); }

    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
};

} // namespace

TEST_F(BlockedTLSTest, EmptyTablesBlockNothing) {
    EXPECT_FALSE(blocksTo());
    EXPECT_FALSE(blocksTo6());
    EXPECT_EQ(log.messages().size(), 0u);
}

TEST_F(BlockedTLSTest, AHitOnTheSourceAndAHitOnTheDestinationAreTreatedAlike) {
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));

    EXPECT_TRUE(blocksTo());
    EXPECT_TRUE(blocksFrom());
    EXPECT_TRUE(blocksTo6());
    EXPECT_TRUE(blocksFrom6());
}

TEST_F(BlockedTLSTest, OtherAddressesAreNotBlocked) {
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));

    EXPECT_FALSE(blocksTo("93.184.216.35"));
    EXPECT_FALSE(blocksTo6("2001:db8::23"));
    EXPECT_FALSE(blocksTo6("2001:db9::22"));
}

TEST_F(BlockedTLSTest, EveryPortOfABlockedAddressIsBlocked) {
    FilterQuery::addToSSL(server);
    auto packet = PacketBuilder::ipv4().to("93.184.216.34", 22).build();

    EXPECT_TRUE(FilterQuery::isBlockedSSL(packet.packet()));
}

TEST_F(BlockedTLSTest, AnEntryBlocksAt299And9TenthsSecondsAndAt300ButNotOneMicrosecondLater) {
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));

    advance(299900000);
    EXPECT_TRUE(blocksTo());
    EXPECT_TRUE(blocksTo6());
    advance(100000);
    EXPECT_TRUE(blocksTo());
    EXPECT_TRUE(blocksTo6());
    advance(1);
    EXPECT_FALSE(blocksTo());
    EXPECT_FALSE(blocksTo6());
}

TEST_F(BlockedTLSTest, TheEntryBehindAnExpiredOneIsNotLookedAtInThatWalk) {
    FilterQuery::addToSSL(0x01020304);
    FilterQuery::addToSSLIpv6(address6("2001:db8::1"));
    advance(300000001);
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));

    EXPECT_FALSE(blocksTo());
    EXPECT_TRUE(blocksTo());
    EXPECT_FALSE(blocksTo6());
    EXPECT_TRUE(blocksTo6());
}

TEST_F(BlockedTLSTest, OfTwoExpiredEntriesInARowTheSecondStaysUntilTheNextWalk) {
    FilterQuery::addToSSL(1);
    FilterQuery::addToSSL(2);
    advance(300000001);
    Configuration::setLogLevel(128);

    blocksTo();
    EXPECT_EQ(log.countContaining(" from SSLcache; count=1"), 1);
    EXPECT_EQ(log.countContaining(" from SSLcache; count=0"), 0);
    blocksTo();
    EXPECT_EQ(log.countContaining(" from SSLcache; count=0"), 1);
}

TEST_F(BlockedTLSTest, AddingAnAddressTwiceGivesTwoEntriesAndTheLaterOutlivesTheEarlier) {
    Configuration::setLogLevel(128);
    FilterQuery::addToSSL(server);
    advance(200000000);
    FilterQuery::addToSSL(server);
    EXPECT_EQ(log.countContaining("-++ added 0x"), 2);
    EXPECT_EQ(log.countContaining(" to SSLcache; count=2"), 1);

    advance(200000000);
    blocksTo();
    EXPECT_TRUE(blocksTo());
}

TEST_F(BlockedTLSTest, TheTablesAreSeparateAndLogUnderNamesOfTheirOwn) {
    Configuration::setLogLevel(128);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));
    EXPECT_EQ(log.countContaining(" to SSLcache Ipv6; count=1"), 1);
    EXPECT_FALSE(blocksTo());

    advance(300000001);
    blocksTo6();
    EXPECT_EQ(log.countContaining("--- removed 0x"), 1);
    EXPECT_EQ(log.countContaining(" from SSLcache Ipv6; count=0"), 1);
}

TEST_F(BlockedTLSTest, APacketIsLoggedOnAHitEvenWithAllLogBitsOff) {
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));

    blocksTo();
    EXPECT_TRUE(log.holds("10.0.0.2:50000 -> 93.184.216.34:443 protocol: TCP\n"));
    EXPECT_EQ(log.messages().size(), 1u);
    blocksTo6();
    EXPECT_EQ(log.messages().size(), 2u);
}

TEST_F(BlockedTLSTest, AtLevel16AHitIsLoggedWithItsAddresses) {
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));
    Configuration::setLogLevel(16);

    blocksTo();
    blocksTo6();

    EXPECT_EQ(log.countContaining("SSL is BLOCKED: SSLcache_entry=0x"), 1);
    EXPECT_EQ(log.countContaining(" entry_addr=1572395042 src=167772162 dst=1572395042"), 1);
    EXPECT_EQ(log.countContaining("SSL Ipv6 is BLOCKED: SSLcache_entry=0x"), 1);
    EXPECT_EQ(log.countContaining(" entry_addr=[2001:0db8:0000:0000:0000:0000:0000:0022]"
                                  " src=[2001:0db8:0000:0000:0000:0000:0000:0002]"
                                  " dst=[2001:0db8:0000:0000:0000:0000:0000:0022]"),
              1);
}

TEST_F(BlockedTLSTest, AnEntryStartsItsTimerAndReleasesItAtItsEnd) {
    auto* entry = new SSLEntry(server);
    auto* entry6 = new SSLEntryIpv6(address6("2001:db8::22"));
    GPTimer* timer = entry->timer;
    GPTimer* timer6 = entry6->timer;
    timer->retain();
    timer6->retain();
    advance(5);
    EXPECT_EQ(timer->elapsedTime(), 5);
    EXPECT_EQ(timer6->elapsedTime(), 5);

    entry->release();
    entry6->release();

    EXPECT_EQ(timer->retainonly(), 2);
    EXPECT_EQ(timer6->retainonly(), 2);
    timer->releaseonly();
    timer6->releaseonly();
    timer->release();
    timer6->release();
}

TEST_F(BlockedTLSTest, WithAllLogBitsButThoseOfTheTablesOnOnlyThePacketOfAHitIsLogged) {
    Configuration::setLogLevel(~(128 | 16));
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));
    blocksTo();
    blocksTo6();
    EXPECT_EQ(log.countContaining("SSL"), 0);
    EXPECT_EQ(log.messages().size(), 2u);
    advance(300000001);
    blocksTo();
    blocksTo6();
    EXPECT_EQ(log.messages().size(), 2u);
}

TEST_F(BlockedTLSTest, OfTwoAddressesInATableEachIsBlocked) {
    FilterQuery::addToSSL(0x5db8d823);
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSLIpv6(address6("2001:db8::23"));
    FilterQuery::addToSSLIpv6(address6("2001:db8::22"));
    EXPECT_TRUE(blocksTo());
    EXPECT_TRUE(blocksTo("93.184.216.35"));
    EXPECT_TRUE(blocksTo6());
    EXPECT_TRUE(blocksTo6("2001:db8::23"));
}

TEST_F(BlockedTLSTest, ARemovedEntryGivesBothItsReferencesBackAndIsLoggedBehindItsRemoval) {
    Configuration::setLogLevel(128);
    FilterQuery::addToSSL(server);
    FilterQuery::addToSSL(server);
    advance(300000001);
    blocksTo();
    ASSERT_EQ(log.messages().size(), 3u);
    const std::string added = log.messages()[0];
    const std::string entry = added.substr(added.find("0x"), added.find(" to ") - added.find("0x"));
    EXPECT_EQ(log.messages()[2], "--- removed " + entry + " from SSLcache; count=1");
}

#include "packet/HijackPacket.h"

#include "config/Configuration.h"
#include "packet/ConnectionEnds.h"
#include "support/RecordWorld.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <thread>

using testsupport::getRequest;
using testsupport::ManualClock;
using testsupport::PacketBuilder;

namespace {

class HijackPacketTest : public testsupport::RecordWorld {};

} // namespace

TEST_F(HijackPacketTest, ANewRecordIsOpen) {
    ASSERT_TRUE(create(request()));

    HijackPacket* record = find(request());
    ASSERT_NE(record, nullptr);
    EXPECT_FALSE(record->isResolved());
    EXPECT_FALSE(record->isHttps());
    EXPECT_STREQ(record->URL(), url);
    EXPECT_EQ(record->redirectURL(), nullptr);
    EXPECT_EQ(record->getTimeout(), 30000000);
}

TEST_F(HijackPacketTest, ATlsRecordHas120SecondsAtCreation) {
    ASSERT_TRUE(create(request(), true));

    EXPECT_TRUE(find(request())->isHttps());
    EXPECT_EQ(find(request())->getTimeout(), 120000000);
}

TEST_F(HijackPacketTest, APacketWithoutPayloadMakesNoRecord) {
    EXPECT_FALSE(create(bareAck(), true));

    EXPECT_EQ(find(bareAck()), nullptr);
}

TEST_F(HijackPacketTest, TheSameConnectionCanHoldSeveralRecords) {
    ASSERT_TRUE(create(request(), false, "http://a.example/"));
    ASSERT_TRUE(create(request(), false, "http://b.example/"));

    EXPECT_STREQ(find(request())->URL(), "http://a.example/");
    EXPECT_TRUE(HijackPacket::resolve("http://b.example/", nullptr));
    EXPECT_FALSE(find(request())->isResolved());
}

TEST_F(HijackPacketTest, AnInboundReplyMatchesByTheReversedEnds) {
    ASSERT_TRUE(create(request()));

    EXPECT_NE(find(answer()), nullptr);
    EXPECT_EQ(find(answer()), find(request()));
}

TEST_F(HijackPacketTest, ADifferentLocalPortToTheSameServerDoesNotMatch) {
    ASSERT_TRUE(create(request(50000)));

    EXPECT_EQ(find(request(50001)), nullptr);
    EXPECT_EQ(find(answer(50001)), nullptr);
}

TEST_F(HijackPacketTest, AnyOfTheFourEndsCounts) {
    ASSERT_TRUE(create(request()));
    const auto other = [](const char* src, int srcPort, const char* dst, int dstPort) {
        return find(PacketBuilder::ipv4().from(src, srcPort).to(dst, dstPort).payload("x").build());
    };

    EXPECT_NE(other("10.0.0.2", 50000, "93.184.216.34", 80), nullptr);
    EXPECT_NE(other("93.184.216.34", 80, "10.0.0.2", 50000), nullptr);
    EXPECT_EQ(other("10.0.0.3", 50000, "93.184.216.34", 80), nullptr);
    EXPECT_EQ(other("10.0.0.2", 50000, "93.184.216.35", 80), nullptr);
    EXPECT_EQ(other("10.0.0.2", 50000, "93.184.216.34", 81), nullptr);
    EXPECT_EQ(other("10.0.0.2", 80, "93.184.216.34", 50000), nullptr);
    EXPECT_EQ(other("93.184.216.34", 50000, "10.0.0.2", 80), nullptr);
    EXPECT_EQ(other("93.184.216.34", 80, "10.0.0.3", 50000), nullptr);
    EXPECT_EQ(other("93.184.216.35", 80, "10.0.0.2", 50000), nullptr);
    EXPECT_EQ(other("93.184.216.34", 81, "10.0.0.2", 50000), nullptr);
    EXPECT_EQ(other("93.184.216.34", 80, "10.0.0.2", 50001), nullptr);
}

TEST_F(HijackPacketTest, IPv6ConnectionsMatchOnAll16BytesInBothDirections) {
    auto request6 = PacketBuilder::ipv6().payload(getRequest()).build();
    auto answer6 = PacketBuilder::ipv6().reversed().payload("HTTP/1.1").build();
    auto other6 = PacketBuilder::ipv6().to("2001:db8::23", 80).payload("x").build();
    ASSERT_TRUE(HijackPacket::create(request6.packet(), url, false));

    EXPECT_NE(HijackPacket::find(request6.packet()), nullptr);
    EXPECT_NE(HijackPacket::find(answer6.packet()), nullptr);
    EXPECT_EQ(HijackPacket::find(other6.packet()), nullptr);
}

TEST_F(HijackPacketTest, AnyOfTheFourIPv6EndsCounts) {
    auto request6 = PacketBuilder::ipv6().payload(getRequest()).build();
    ASSERT_TRUE(HijackPacket::create(request6.packet(), url, false));
    const auto other = [](const char* src, int srcPort, const char* dst, int dstPort) {
        return find(PacketBuilder::ipv6().from(src, srcPort).to(dst, dstPort).payload("x").build());
    };

    EXPECT_NE(other("2001:db8::2", 50000, "2001:db8::22", 80), nullptr);
    EXPECT_NE(other("2001:db8::22", 80, "2001:db8::2", 50000), nullptr);
    EXPECT_EQ(other("2001:db8::3", 50000, "2001:db8::22", 80), nullptr);
    EXPECT_EQ(other("2001:db8::2", 50000, "2001:db8::23", 80), nullptr);
    EXPECT_EQ(other("2001:db8::2", 50001, "2001:db8::22", 80), nullptr);
    EXPECT_EQ(other("2001:db8::2", 50000, "2001:db8::22", 81), nullptr);
    EXPECT_EQ(other("2001:db8::2", 80, "2001:db8::22", 50000), nullptr);
    EXPECT_EQ(other("2001:db8::22", 50000, "2001:db8::2", 80), nullptr);
    EXPECT_EQ(other("2001:db8::22", 80, "2001:db8::3", 50000), nullptr);
    EXPECT_EQ(other("2001:db8::23", 80, "2001:db8::2", 50000), nullptr);
    EXPECT_EQ(other("2001:db8::22", 81, "2001:db8::2", 50000), nullptr);
    EXPECT_EQ(other("2001:db8::22", 80, "2001:db8::2", 50001), nullptr);
}

TEST_F(HijackPacketTest, RecordsAreOfOneConnectionWhenAllTheirEndsAgreeInOneDirection) {
    const auto recordOf = [](const PacketBuilder& ends) {
        testsupport::PacketBuffer packet = PacketBuilder(ends).payload(getRequest()).build();
        EXPECT_TRUE(HijackPacket::create(packet.packet(), url, false));
        return HijackPacket::find(packet.packet());
    };
    const auto ipv4 = [](const char* src, int srcPort, const char* dst, int dstPort) {
        return PacketBuilder::ipv4().from(src, srcPort).to(dst, dstPort);
    };
    const auto ipv6 = [](const char* src, int srcPort, const char* dst, int dstPort) {
        return PacketBuilder::ipv6().from(src, srcPort).to(dst, dstPort);
    };
    // No two of the others are of one connection, so that each finds its own record.
    const HijackPacket* one = recordOf(ipv4("10.0.0.1", 1, "10.0.0.2", 2));
    EXPECT_TRUE(one->isOfSameConnection(recordOf(ipv4("10.0.0.2", 2, "10.0.0.1", 1))));
    for (const auto& other : {ipv4("10.0.0.3", 1, "10.0.0.2", 2), ipv4("10.0.0.1", 3, "10.0.0.2", 2),
                              ipv4("10.0.0.1", 1, "10.0.0.3", 2), ipv4("10.0.0.1", 1, "10.0.0.2", 3),
                              ipv4("10.0.0.2", 4, "10.0.0.1", 1), ipv4("10.0.0.2", 2, "10.0.0.1", 4),
                              ipv4("10.0.0.4", 2, "10.0.0.1", 1), ipv4("10.0.0.2", 2, "10.0.0.4", 1)})
        EXPECT_FALSE(one->isOfSameConnection(recordOf(other)));

    const HijackPacket* six = recordOf(ipv6("2001:db8::1", 1, "2001:db8::2", 2));
    EXPECT_TRUE(six->isOfSameConnection(recordOf(ipv6("2001:db8::2", 2, "2001:db8::1", 1))));
    for (const auto& other :
         {ipv6("2001:db8::3", 1, "2001:db8::2", 2), ipv6("2001:db8::1", 1, "2001:db8::3", 2),
          ipv6("2001:db8::2", 2, "2001:db8::4", 1), ipv6("2001:db8::4", 2, "2001:db8::1", 1)})
        EXPECT_FALSE(six->isOfSameConnection(recordOf(other)));
}

TEST(ConnectionEnds, AreOfZerosInIPv6WithBothAddressesAlone) {
    const auto areOfZeros = [](const PacketBuilder& ends) {
        testsupport::PacketBuffer packet = ends.build();
        return ConnectionEnds(packet.packet()).isIpv6OfZeros();
    };
    EXPECT_TRUE(areOfZeros(PacketBuilder::ipv6().from("::", 1).to("::", 2)));
    EXPECT_FALSE(areOfZeros(PacketBuilder::ipv6().from("::1", 1).to("::", 2)));
    EXPECT_FALSE(areOfZeros(PacketBuilder::ipv6().from("::", 1).to("::1", 2)));
    EXPECT_FALSE(areOfZeros(PacketBuilder::ipv4()));
}

TEST_F(HijackPacketTest, AnIPv4PacketNeverMatchesAnIPv6Record) {
    auto request6 = PacketBuilder::ipv6().payload(getRequest()).build();
    ASSERT_TRUE(HijackPacket::create(request6.packet(), url, true));

    EXPECT_EQ(find(PacketBuilder::ipv4().from("0.0.0.0", 50000).to("0.0.0.0", 80).payload("x").build()),
              nullptr);
    EXPECT_EQ(find(request()), nullptr);
}

TEST_F(HijackPacketTest, AnIPv4PacketWithASourceAddressOf0MatchesNothing) {
    const auto fromNowhere = PacketBuilder::ipv4().from("0.0.0.0", 68).payload("x").build();
    ASSERT_TRUE(create(fromNowhere));

    EXPECT_EQ(find(fromNowhere), nullptr);
}

TEST_F(HijackPacketTest, APureAckFindsNothingOnAPlainHttpConnection) {
    ASSERT_TRUE(create(request()));

    EXPECT_EQ(find(bareAck()), nullptr);
}

TEST_F(HijackPacketTest, APureAckFindsTheRecordOfATlsConnection) {
    ASSERT_TRUE(create(request(), true));

    EXPECT_NE(find(bareAck()), nullptr);
}

TEST_F(HijackPacketTest, BehindAPlainRecordThatIgnoresAnAckTheWalkGoesOn) {
    ASSERT_TRUE(create(request(), false, "http://a.example/"));
    ASSERT_TRUE(create(request(), true, "https://b.example"));

    EXPECT_STREQ(find(bareAck())->URL(), "https://b.example");
}

TEST_F(HijackPacketTest, ARecordLivesForExactly30000000Microseconds) {
    ASSERT_TRUE(create(request()));

    advance(30000000);
    EXPECT_NE(find(request()), nullptr);
    advance(1);
    EXPECT_EQ(find(request()), nullptr);
}

TEST_F(HijackPacketTest, ATlsRecordLivesForExactly120000000Microseconds) {
    ASSERT_TRUE(create(request(), true));

    advance(120000000);
    EXPECT_NE(find(request()), nullptr);
    advance(1);
    EXPECT_EQ(find(request()), nullptr);
}

TEST_F(HijackPacketTest, APurgedRecordStaysGoneWhenTheClockIsSetBack) {
    ASSERT_TRUE(create(request()));
    advance(30000001);
    ASSERT_EQ(find(answer(50009)), nullptr);

    advance(-30000001);

    EXPECT_EQ(find(request()), nullptr);
    EXPECT_FALSE(HijackPacket::resolve(url, nullptr));
}

TEST_F(HijackPacketTest, ARecordThatNoWalkHasReachedLivesAgainWhenTheClockIsSetBackToItsLastMicrosecond) {
    ASSERT_TRUE(create(request(50001), true));
    ASSERT_TRUE(create(request(50002)));
    advance(30000001);
    ASSERT_NE(find(request(50001)), nullptr);

    advance(-1);

    EXPECT_NE(find(request(50002)), nullptr);
}

TEST_F(HijackPacketTest, ARecordIsPurgedInItsTurnAlsoBeforeTheClocksZero) {
    ManualClock::installed().set(-60000000);
    ASSERT_TRUE(create(request()));
    advance(30000001);

    EXPECT_EQ(find(request()), nullptr);
    EXPECT_FALSE(HijackPacket::resolve(url, nullptr));
}

TEST_F(HijackPacketTest, ARecordLivesOnAtTheEndOfTheClocksRange) {
    constexpr std::int64_t endOfTime = std::numeric_limits<std::int64_t>::max();
    ManualClock::installed().set(endOfTime - 10);
    ASSERT_TRUE(create(request()));

    advance(10);

    EXPECT_NE(find(request()), nullptr);
}

TEST_F(HijackPacketTest, OfTwoExpiredRecordsInARowTheSecondStaysUntilTheNextWalk) {
    ASSERT_TRUE(create(request(50001), false, "http://a.example/"));
    ASSERT_TRUE(create(request(50002), false, "http://b.example/"));
    advance(30000001);
    Configuration::setLogLevel(128);

    find(request(50009));
    EXPECT_EQ(log.countContaining("--- removed"), 1);
    EXPECT_EQ(log.countContaining("object from hijackpackets; (http://a.example/) count=2"), 1);

    find(request(50009));
    EXPECT_EQ(log.countContaining("object from hijackpackets; (http://b.example/) count=1"), 1);
}

TEST_F(HijackPacketTest, TheRecordBehindAnExpiredOneIsNotFoundForThatOnce) {
    ASSERT_TRUE(create(request(50001)));
    advance(30000001);
    ASSERT_TRUE(create(request(50002)));

    EXPECT_EQ(find(request(50002)), nullptr);
    EXPECT_NE(find(request(50002)), nullptr);
}

TEST_F(HijackPacketTest, AdditionsAndRemovalsAreLoggedAtLevel128Alone) {
    Configuration::setLogLevel(~128);
    ASSERT_TRUE(create(request(50001)));
    EXPECT_EQ(log.countContaining("hijackpackets"), 0);

    Configuration::setLogLevel(128);
    ASSERT_TRUE(create(request(50002)));
    EXPECT_EQ(log.countContaining("-++ added 0x"), 1);
    EXPECT_EQ(log.countContaining(" to hijackpackets; (http://www.example.org/) count=2"), 1);

    HijackPacket::remove(find(request(50002)));
    EXPECT_EQ(log.countContaining("--- removed 0x"), 1);
    EXPECT_EQ(log.countContaining(" from hijackpackets; count=1"), 1);
}

TEST_F(HijackPacketTest, ARemovedRecordIsGoneAtOnce) {
    ASSERT_TRUE(create(request(50001)));
    ASSERT_TRUE(create(request(50002)));

    HijackPacket::remove(find(request(50001)));

    EXPECT_EQ(find(request(50001)), nullptr);
    EXPECT_NE(find(request(50002)), nullptr);
}

TEST_F(HijackPacketTest, RemovingARecordThatIsNotListedDoesNothing) {
    ASSERT_TRUE(create(request()));
    HijackPacket* record = find(request());
    HijackPacket::remove(record);

    HijackPacket::remove(record);
    HijackPacket::remove(nullptr);

    EXPECT_EQ(find(request()), nullptr);
}

TEST_F(HijackPacketTest, AListedRecordHasItsCreatorsReferenceAndTheLists) {
    ASSERT_TRUE(create(request()));
    HijackPacket* record = find(request());

    EXPECT_EQ(record->retainonly(), 3);
    EXPECT_EQ(record->releaseonly(), 2);
}

TEST_F(HijackPacketTest, RemovalDropsBothReferences) {
    ASSERT_TRUE(create(request()));
    HijackPacket* record = find(request());
    record->retain();

    HijackPacket::remove(record);

    EXPECT_EQ(record->retainonly(), 2);
    record->releaseonly();
    record->release();
}

TEST_F(HijackPacketTest, AFoundRecordOutlivesItsRemovalByAnotherWalk) {
    ASSERT_TRUE(create(request()));
    ASSERT_TRUE(HijackPacket::resolve(url, "http://block.example/"));
    auto packet = request();
    const HijackPacket::Found found(packet.packet());
    ASSERT_TRUE(found);

    advance(30000001);
    EXPECT_EQ(find(request()), nullptr);

    EXPECT_STREQ(found->redirectURL(), "http://block.example/");
    EXPECT_STREQ(found->URL(), url);
}

TEST_F(HijackPacketTest, NothingFoundHoldsNothing) {
    auto packet = request();
    const HijackPacket::Found found(packet.packet());

    EXPECT_FALSE(found);
    EXPECT_EQ(found.get(), nullptr);
}

TEST_F(HijackPacketTest, RecordsAreMadeFoundResolvedAndPurgedByAllThreadsAtOnce) {
    std::atomic<int> redirected{0};
    std::atomic<bool> done{false};
    const auto reader = [&](bool inbound) {
        while (!done) {
            auto packet = inbound ? answer() : request();
            const HijackPacket::Found found(packet.packet());
            if (found && found->isResolved() && found->redirectURL()) {
                EXPECT_STREQ(found->redirectURL(), "http://block.example/");
                ++redirected;
            }
        }
    };
    std::thread outbound(reader, false);
    std::thread inbound(reader, true);
    for (int round = 0; round < 2000 || (redirected == 0 && round < 20000); ++round) {
        create(request());
        HijackPacket::resolve(url, "http://block.example/", 30);
        if (round % 8 == 0) advance(30000001);
    }
    done = true;
    outbound.join();
    inbound.join();

    EXPECT_GT(redirected, 0);
}

#include "packet/PacketVerdicts.h"

#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"
#include "packet/HijackPacket.h"
#include "support/AllocationCounter.h"
#include "support/ClientHelloBuilder.h"
#include "support/VerdictWorld.h"

#include <cstdlib>
#include <memory>
#include <thread>

using testsupport::AllocationCounter;
using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace {

// Settings, a snapshot of server addresses, a record of either kind and an entry in both tables of blocked
// addresses, none of which concerns the packets that are counted.
class PacketAllocation : public testsupport::VerdictWorld {
protected:
    PacketAllocation() {
        FilterIPAddresses::startIPAddressManager();
        FilterIPAddresses* snapshot = nullptr;
        while (!(snapshot = FilterIPAddresses::getCurrentIPAddresses()))
            std::this_thread::yield();
        snapshot->release();
        outbound(get().from("10.0.0.2", 1000));
        outbound(hello().from("10.0.0.2", 1001));
        FilterQuery::addToSSL(0x01020304);
        FilterQuery::addToSSLIpv6(in6_addr{});
    }

    // Allocations for both directions of a packet; the packet passes or is handled as expected.
    long allocationsOutbound(const PacketBuilder& builder, int expected = verdictPass) {
        PacketBuffer packet = builder.build();
        long count;
        int verdict;
        {
            AllocationCounter allocations;
            verdict = outbound(packet);
            count = allocations.count();
        }
        EXPECT_EQ(verdict, expected);
        return count;
    }

    long allocationsInbound(const PacketBuilder& builder, int expected = verdictPass) {
        PacketBuffer packet = builder.build();
        long count;
        int verdict;
        {
            AllocationCounter allocations;
            verdict = inbound(packet);
            count = allocations.count();
        }
        EXPECT_EQ(verdict, expected);
        return count;
    }
};

} // namespace

TEST_F(PacketAllocation, TheCounterSeesNewAndMalloc) {
    AllocationCounter allocations;

    const auto byNew = std::make_unique<int>(1);
    EXPECT_GE(allocations.count(), 1);
    const long before = allocations.count();
    void* volatile byMalloc = std::malloc(10);
    std::free(byMalloc);
    EXPECT_GT(allocations.count(), before);
}

TEST_F(PacketAllocation, ARecordIsThreePiecesOfMemoryWithItsUrlAndItsPlaceInTheList) {
    PacketBuffer packet = get().build();
    const auto create = [&packet] {
        HijackPacket::create(packet.packet(), "http://www.example.org/", false);
    };
    // The table has room for several more records by then.
    for (int i = 0; i < 6; ++i)
        create();
    const AllocationCounter allocations;
    create();
    EXPECT_EQ(allocations.count(), 3);
}

TEST_F(PacketAllocation, APacketWithAUrlAllocates) { EXPECT_GT(allocationsOutbound(get(), verdictHold), 0); }

TEST_F(PacketAllocation, PacketsWithoutAUrlAllocateNothing) {
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv4()), 0);
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv6()), 0);
    EXPECT_EQ(
        allocationsOutbound(PacketBuilder::ipv4().payload("POST / HTTP/1.1\r\nHost: a.example\r\n\r\n")), 0);
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv4().payload("GET / HTTP/1.1\r\nHost:\r\n\r\n")), 0);
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv4().payload(std::string(1400, '\x17'))), 0);
    EXPECT_EQ(
        allocationsOutbound(PacketBuilder::ipv4().payload(ClientHelloBuilder().withoutServerName().build())),
        0);
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv6().extension(0, 1).payload(std::string(1200, 'x'))), 0);
}

TEST_F(PacketAllocation, InboundPacketsAllocateNothing) {
    EXPECT_EQ(allocationsInbound(reply(80, getRequest())), 0);
    EXPECT_EQ(allocationsInbound(PacketBuilder::ipv6().reversed().payload(std::string(1200, 'x'))), 0);
}

TEST_F(PacketAllocation, UnusableAndLoopbackPacketsAllocateNothing) {
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv4().udp().payload("query")), 0);
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv4().to("127.0.0.1", 80).payload(getRequest())), 0);
    EXPECT_EQ(allocationsOutbound(PacketBuilder::ipv6().to("::1", 80).payload(getRequest())), 0);
}

TEST_F(PacketAllocation, PacketsOfAnOpenConnectionAllocateNothing) {
    EXPECT_EQ(allocationsOutbound(get().from("10.0.0.2", 1000), verdictHold), 0);
    EXPECT_EQ(allocationsOutbound(hello().from("10.0.0.2", 1001), verdictHold), 0);
    EXPECT_EQ(allocationsInbound(hello().from("10.0.0.2", 1001).reversed(), verdictDrop), 0);
}

TEST_F(PacketAllocation, PacketsOfAnAllowedConnectionAllocateNothing) {
    HijackPacket::resolve("http://www.example.org/", nullptr);
    HijackPacket::resolve("https://www.example.org", nullptr);

    EXPECT_EQ(allocationsOutbound(get().from("10.0.0.2", 1000)), 0);
    EXPECT_EQ(allocationsOutbound(hello().from("10.0.0.2", 1001)), 0);
    EXPECT_EQ(allocationsInbound(get().from("10.0.0.2", 1000).reversed()), 0);
}

TEST_F(PacketAllocation, PacketsOfABlockedConnectionThatHaveNoRoomForItsRedirectAllocateNothing) {
    HijackPacket::resolve("http://www.example.org/", "http://block.example/page", 30);

    EXPECT_EQ(allocationsInbound(get().from("10.0.0.2", 1000).reversed().payload("short")), 0);
    EXPECT_EQ(allocationsOutbound(get().from("10.0.0.2", 1000).payload("body")), 0);
    EXPECT_GT(allocationsInbound(get().from("10.0.0.2", 1000).reversed().payload(std::string(200, 'x')),
                                 verdictRedirect),
              0);
}

TEST_F(PacketAllocation, DroppingExpiredRecordsAndEntriesAllocatesNothing) {
    for (int port = 2000; port < 2300; ++port)
        HijackPacket::create(get().from("10.0.0.2", port).build().packet(), "http://many.example/", false);
    advance(600000000);

    EXPECT_EQ(allocationsInbound(reply()), 0);
    EXPECT_EQ(allocationsInbound(reply()), 0);
}

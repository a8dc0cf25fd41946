// What a listener's own thread allocates between two packets: receive, callback and send, with the callbacks
// that the daemon has.

#include "packet/PacketFilter.h"

#include "config/FilterIPAddresses.h"
#include "packet/HijackPacket.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "support/AllocationCounter.h"
#include "support/ClientHelloBuilder.h"
#include "support/PlayedKernelControl.h"
#include "support/VerdictWorld.h"

#include <atomic>
#include <thread>

using testsupport::AllocationCounter;
using testsupport::ClientHelloBuilder;
using testsupport::getRequest;
using testsupport::PacketBuilder;
using testsupport::receiveResult;
using testsupport::sendRecord;

namespace {

PacketCallback judge;
std::atomic<long> countAtCallback{-1};

// Counts on the listener's thread from the first packet on, and tells the count at the start of each packet:
// by then the packet before has been judged and answered, and the loop has come round.
int countingCallback(char* packet, void* result) {
    static AllocationCounter allocations;
    countAtCallback = allocations.count();
    return judge(packet, result);
}

class ListenerAllocation : public testsupport::VerdictWorld {
protected:
    ListenerAllocation() {
        FilterIPAddresses::startIPAddressManager();
        FilterIPAddresses* snapshot = nullptr;
        while (!(snapshot = FilterIPAddresses::getCurrentIPAddresses()))
            std::this_thread::yield();
        snapshot->release();
        extension_.install();
    }

    void startInbound() {
        judge = tcpInBoundCallback;
        std::thread([] { osxKextInterface(true, countingCallback); }).detach();
        control_ = extension_.waitForControl("twFernhill_inkext");
        ASSERT_NE(-1, control_);
    }

    void startOutbound() {
        judge = tcpOutBoundCallback;
        std::thread([] { osxKextInterface(false, countingCallback); }).detach();
        control_ = extension_.waitForControl("twFernhill_outkext");
        ASSERT_NE(-1, control_);
    }

    int nextResult() const {
        const auto answer = receiveResult(control_);
        return answer ? answer->result : -1;
    }

    // The kernel result that the listener sends for a packet; -1 when it sends none.
    int present(const PacketBuilder& packet) {
        sendRecord(control_, packet.build().record());
        return nextResult();
    }

    // The same for a record in two messages, its header first.
    int presentInTwoSteps(const PacketBuilder& packet) {
        const std::string record = packet.build().record();
        sendRecord(control_, record.substr(0, 24));
        sendRecord(control_, record.substr(24));
        return nextResult();
    }

    // Allocations of the listener's thread from its first packet up to now.
    long allocations() {
        present(PacketBuilder::ipv4().udp());
        return countAtCallback;
    }

    static constexpr int pass = resultPass;
    static constexpr int drop = resultDrop;
    static constexpr int redirect = resultRedirect;
    static constexpr int hold = resultHold;

    testsupport::PlayedKernelControl& extension_ = testsupport::lastingKernelControl();
    int control_ = -1;
};

} // namespace

TEST_F(ListenerAllocation, TheOutboundListenerAllocatesNothingForPacketsWithoutAUrl) {
    startOutbound();

    EXPECT_EQ(pass, present(PacketBuilder::ipv4()));
    EXPECT_EQ(pass, present(PacketBuilder::ipv6().extension(0, 1).payload(std::string(1200, 'x'))));
    EXPECT_EQ(pass, present(PacketBuilder::ipv4().payload("POST / HTTP/1.1\r\nHost: a.example\r\n\r\n")));
    EXPECT_EQ(pass, present(PacketBuilder::ipv4().payload(ClientHelloBuilder().withoutServerName().build())));
    EXPECT_EQ(pass, present(PacketBuilder::ipv4().to("127.0.0.1", 80).payload(getRequest())));
    EXPECT_EQ(pass, present(PacketBuilder::ipv4().udp().payload("query")));
    EXPECT_EQ(pass, presentInTwoSteps(PacketBuilder::ipv4().payload(std::string(1400, '\x17'))));
    sendRecord(control_, "too short");

    EXPECT_EQ(0, allocations());
}

TEST_F(ListenerAllocation, TheInboundListenerAllocatesNothingForPacketsWithoutARedirect) {
    outbound(hello());
    outbound(get());
    startInbound();

    EXPECT_EQ(drop, present(reply(443)));
    EXPECT_EQ(drop, present(reply()));
    EXPECT_EQ(pass, present(reply(8080)));
    HijackPacket::resolve("https://www.example.org", nullptr);
    EXPECT_EQ(pass, present(reply(443)));
    HijackPacket::resolve("http://www.example.org/", "http://block.example/", 30);
    EXPECT_EQ(pass, presentInTwoSteps(reply(80, "too short for it")));
    advance(600000000);
    EXPECT_EQ(pass, present(reply(443)));

    EXPECT_EQ(0, allocations());
}

TEST_F(ListenerAllocation, PacketsOfAnOpenAndOfAnAllowedConnectionAllocateNothing) {
    outbound(get());
    outbound(hello());
    startOutbound();

    EXPECT_EQ(hold, present(get()));
    EXPECT_EQ(hold, present(hello()));
    HijackPacket::resolve("http://www.example.org/", nullptr);
    EXPECT_EQ(pass, present(get()));

    EXPECT_EQ(0, allocations());
}

TEST_F(ListenerAllocation, APacketWithAUrlOrARedirectIsSeenByTheCount) {
    startOutbound();
    EXPECT_EQ(pass, present(PacketBuilder::ipv4()));
    EXPECT_EQ(hold, present(hello()));
    const long withUrl = allocations();
    EXPECT_GT(withUrl, 0);

    HijackPacket::resolve("https://www.example.org", "http://block.example/", 30);
    EXPECT_EQ(redirect, present(hello()));
    EXPECT_GT(allocations(), withUrl);
}

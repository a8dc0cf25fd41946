#pragma once

// Base of the tests around pending records: packets of connections from 10.0.0.2 to 93.184.216.34:80, told
// apart by their local port, and the operations on their records.

#include "packet/HijackPacket.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"
#include "support/PacketBuilder.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace testsupport {

class RecordWorld : public testing::Test {
protected:
    static constexpr char url[] = "http://www.example.org/";

    // A packet with a payload on the connection of that local port.
    static PacketBuffer request(int localPort = 50000) {
        return PacketBuilder::ipv4().from("10.0.0.2", localPort).payload(getRequest()).build();
    }

    static PacketBuffer answer(int localPort = 50000) {
        return PacketBuilder::ipv4().from("10.0.0.2", localPort).reversed().payload("HTTP/1.1 200").build();
    }

    static PacketBuffer bareAck(int localPort = 50000) {
        return PacketBuilder::ipv4().from("10.0.0.2", localPort).build();
    }

    static bool create(PacketBuffer packet, bool https = false, const char* of = url) {
        return HijackPacket::create(packet.packet(), of, https);
    }

    static HijackPacket* find(PacketBuffer packet) { return HijackPacket::find(packet.packet()); }

    static void advance(std::int64_t microseconds) { ManualClock::installed().advance(microseconds); }

    ScratchRoot root;
    CapturedLog log;
};

} // namespace testsupport
